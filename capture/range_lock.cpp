// SPDX-License-Identifier: Apache-2.0
#include "capture/range_lock.h"

namespace penstock {

bool RangeLock::IsFirst(Place place) const {
  for (auto each = m_entries.begin(); each != m_entries.end(); ++each) {
    if (each == std::list<Entry>::const_iterator(place)) return true;
    if (each->offset < place->offset + place->length &&
        place->offset < each->offset + each->length) {
      return false;
    }
  }
  return true;
}

RangeLock::Place RangeLock::Enter(std::uint64_t offset, std::uint64_t length) {
  std::unique_lock lock(m_mutex);
  const Place place = m_entries.insert(m_entries.end(), Entry{offset, length});
  ++m_waiting;
  m_left.wait(lock, [&] { return IsFirst(place); });
  --m_waiting;
  return place;
}

void RangeLock::Leave(Place place) {
  const std::lock_guard lock(m_mutex);
  m_entries.erase(place);
  if (m_waiting > 0) m_left.notify_all();
}

}  // namespace penstock
