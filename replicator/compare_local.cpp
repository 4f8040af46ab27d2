// SPDX-License-Identifier: Apache-2.0
#include "replicator/compare_local.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>

#include "codec/compare.h"
#include "replicator/volume_file.h"

namespace penstock {

namespace {

class LocalComparer {
 public:
  LocalComparer(const VolumeFile& from, const VolumeFile& to)
      : m_from(from), m_to(to), m_size(std::min(from.Size(), to.Size())) {}

  // On any number of threads: takes window after window until there is none.
  void Work() {
    std::vector<std::uint8_t> a(kWindowBytes);
    std::vector<std::uint8_t> b(kWindowBytes);
    for (;;) {
      const std::uint64_t offset = m_next.fetch_add(kWindowBytes);
      if (offset >= m_size || m_failed) return;
      const std::size_t length = std::min<std::uint64_t>(kWindowBytes, m_size - offset);
      std::string fault;
      if (!IsHoleInBoth(offset, length, fault)) {
        if (fault.empty()) fault = m_from.Read(offset, {a.data(), length});
        if (fault.empty()) fault = m_to.Read(offset, {b.data(), length});
        if (fault.empty()) Compare(offset, {a.data(), length}, {b.data(), length});
      }
      if (!fault.empty()) Fail(fault);
    }
  }

  const std::string& Fault() const { return m_fault; }
  std::uint64_t Size() const { return m_size; }
  Comparison TakeFound() { return std::move(m_found); }

 private:
  bool IsHoleInBoth(std::uint64_t offset, std::uint64_t length, std::string& fault) const {
    std::uint64_t next = 0;
    fault = m_from.NextData(offset, next);
    if (!fault.empty() || next < offset + length) return false;
    fault = m_to.NextData(offset, next);
    return fault.empty() && next >= offset + length;
  }

  void Compare(std::uint64_t offset, Bytes a, Bytes b) {
    if (std::memcmp(a.data(), b.data(), a.size()) == 0) return;
    const std::lock_guard lock(m_mutex);
    for (std::size_t at = 0; at < a.size(); at += kCompareBytes) {
      const std::size_t length = std::min<std::size_t>(kCompareBytes, a.size() - at);
      if (std::memcmp(a.data() + at, b.data() + at, length) == 0) continue;
      m_found.Add({{}, offset + at, length});
    }
  }

  void Fail(const std::string& fault) {
    const std::lock_guard lock(m_mutex);
    if (m_fault.empty()) m_fault = fault;
    m_failed = true;
  }

  const VolumeFile& m_from;
  const VolumeFile& m_to;
  const std::uint64_t m_size;
  std::atomic<std::uint64_t> m_next{0};
  std::atomic<bool> m_failed{false};
  std::mutex m_mutex;  // of what follows
  std::string m_fault;
  Comparison m_found;
};

}  // namespace

void Comparison::Add(DifferingRange range) {
  differingBytes += range.length;
  if (!differing.empty() && differing.back().volume == range.volume &&
      differing.back().offset + differing.back().length == range.offset) {
    differing.back().length += range.length;
  } else if (differing.size() < kMostRanges) {
    differing.push_back(std::move(range));
  } else {
    isCut = true;
  }
}

void JoinRanges(std::vector<DifferingRange>& ranges) {
  std::sort(ranges.begin(), ranges.end(), [](const DifferingRange& a, const DifferingRange& b) {
    return std::tie(a.volume, a.offset) < std::tie(b.volume, b.offset);
  });
  std::vector<DifferingRange> joined;
  for (DifferingRange& range : ranges) {
    if (!joined.empty() && joined.back().volume == range.volume &&
        joined.back().offset + joined.back().length == range.offset) {
      joined.back().length += range.length;
    } else {
      joined.push_back(std::move(range));
    }
  }
  ranges = std::move(joined);
}

std::string CompareLocal(const std::string& from, const std::string& to, unsigned jobs,
                         Comparison& out) {
  VolumeOptions options;
  options.sequential = true;
  options.lock = false;  // it changes nothing, and a target may have its volume open
  std::unique_ptr<VolumeFile> a;
  std::unique_ptr<VolumeFile> b;
  if (auto fault = VolumeFile::Open(from, options, a); !fault.empty()) return fault;
  if (auto fault = VolumeFile::Open(to, options, b); !fault.empty()) return fault;
  LocalComparer comparer(*a, *b);
  std::vector<std::thread> threads;
  for (unsigned i = 1; i < jobs; ++i) threads.emplace_back([&] { comparer.Work(); });
  comparer.Work();
  for (std::thread& thread : threads) thread.join();
  if (!comparer.Fault().empty()) return comparer.Fault();
  out = comparer.TakeFound();
  out.bytes = comparer.Size();
  const std::uint64_t longest = std::max(a->Size(), b->Size());
  if (longest > out.bytes) out.Add({{}, out.bytes, longest - out.bytes});
  JoinRanges(out.differing);
  return {};
}

}  // namespace penstock
