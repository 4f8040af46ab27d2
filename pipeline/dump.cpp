// SPDX-License-Identifier: Apache-2.0
#include <locale>
#include <ostream>
#include <sstream>

#include "common/log.h"
#include "penstock/pipeline.h"

// The picture of the pipeline on one line.

namespace {

bool MarkOf(const DoneInfo& record) { return record.done; }
bool MarkOf(const FlushInfo& record) { return record.flushed; }

}  // namespace

void PrintDatasetInfo(std::ostream& os, const std::list<std::shared_ptr<Dataset>>& pipe) {
  if (pipe.empty()) return;
  const std::uint64_t first = pipe.front()->GetN();
  const std::uint64_t last = pipe.back()->GetN();
  os << first;
  if (first != last) os << " .. " << last;
}

template <class T>
void HandleArrived(bool separate, std::ostream& out, bool& lastMark, const T& record,
                   std::uint64_t& lastN) {
  lastMark = MarkOf(record);
  if (separate) out << " ";
  out << (lastMark ? "1:" : "0:") << record.n;
  lastN = record.n;
}

template <class T>
std::string EmitDonePipe(const std::list<T>& pipe) {
  if (pipe.empty()) return {};
  std::ostringstream out;
  out.imbue(std::locale::classic());
  bool mark = false;
  std::uint64_t start = 0;
  HandleArrived(false, out, mark, pipe.front(), start);
  std::uint64_t cur = start;
  for (auto record = std::next(pipe.begin()); record != pipe.end(); ++record) {
    if (MarkOf(*record) != mark) {
      // The run before ends one below this record: the same as its last number, as long as
      // datasets are numbered without gaps.
      if (record->n - 1 != start) out << ".." << record->n - 1;
      HandleArrived(true, out, mark, *record, start);
    }
    cur = record->n;
  }
  if (cur != start) out << ".." << cur;
  return out.str();
}

template PENSTOCK_EXPORT void HandleArrived(bool, std::ostream&, bool&, const DoneInfo&,
                                            std::uint64_t&);
template PENSTOCK_EXPORT void HandleArrived(bool, std::ostream&, bool&, const FlushInfo&,
                                            std::uint64_t&);
template PENSTOCK_EXPORT std::string EmitDonePipe(const std::list<DoneInfo>&);
template PENSTOCK_EXPORT std::string EmitDonePipe(const std::list<FlushInfo>&);

std::ostream& operator<<(std::ostream& os, const Pipeline& p) {
  os << "pipes [RECV ";
  PrintDatasetInfo(os, p.m_recvPipe);
  os << "]  [XMIT ";
  PrintDatasetInfo(os, p.m_xmitPipe);
  os << "]  [DONE " << EmitDonePipe<DoneInfo>(p.m_donePipe);
  os << "]  [FLUSH " << EmitDonePipe<FlushInfo>(p.m_flushPipe);
  return os << "]";
}

void Pipeline::PrintDonePipe(bool important) const {
  PENSTOCK_LOG(important ? LOG_NOTICE : LOG_INFO, EmitDonePipe<DoneInfo>(m_donePipe));
}
