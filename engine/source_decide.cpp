// SPDX-License-Identifier: Apache-2.0
// What a window's answer means: its runs become buffers of the resync dataset, which keeps those
// that differ, and these are sent.
#include <algorithm>
#include <utility>

#include "engine/planted.h"
#include "engine/source_engine.h"

namespace penstock {

namespace {

// The local fingerprint of a run that is known to differ. Its counterpart is twenty zero bytes,
// which always keep a buffer, so that only its being there matters.
constexpr BufFingerprint kDiffers{{1}};

std::uint64_t RunOffset(const SourceWindow& window, const Run& run) {
  return window.offset + std::uint64_t{run.firstBlock} * kCompareBytes;
}

std::uint32_t RunLength(const SourceWindow& window, const Run& run) {
  const std::uint32_t from = std::uint32_t{run.firstBlock} * kCompareBytes;
  return std::min(std::uint32_t{run.blocks} * kCompareBytes, window.length - from);
}

}  // namespace

void SourceEngine::TakeCopied(ResyncWork& work, SourceWindow& window, WindowFetched&& result) {
  window.answer = result.nonZero;
  std::uint64_t data = 0;
  for (const Run& run : result.nonZero) data += RunLength(window, run);
  m_status.equalBytes += window.length - data;
  Admit(work, window, result.nonZero);
  FinalizeKept(work, window, result.block);
}

void SourceEngine::Completed(RunsPacked&& result, const Moment& now) {
  const auto job = m_jobs.find(result.ticket);
  if (job == m_jobs.end()) return;
  const auto [n, index, generation] = job->second;
  m_jobs.erase(job);
  const auto place = m_resyncs.find(n);
  if (place == m_resyncs.end() || m_status.phase == SourcePhase::kStopped) return;
  TakePacked(*place->second, place->second->windows[index], std::move(result));
  Settle(now);
}

void SourceEngine::TakePacked(ResyncWork& work, SourceWindow& window, RunsPacked&& result) {
  const std::size_t index = static_cast<std::size_t>(&window - work.windows.data());
  if (window.kept.empty() && !window.admitted) {
    window.admitted = true;
    Admit(work, window, result.runs);
    // Runs whose 64-bit fingerprints were equal and whose strong ones were not: packed with the
    // others, once more.
    bool again = false;
    for (Run& run : window.answer) {
      const std::uint64_t offset = RunOffset(window, run);
      const bool isKept =
          std::any_of(window.kept.begin(), window.kept.end(),
                      [&](const InternalData& buf) { return buf.offset == offset; });
      again = again || (run.equal && isKept);
      run.equal = !isKept;
    }
    if (again) {
      const Ticket ticket = ++m_lastTicket;
      m_jobs[ticket] = {work.n, index, m_connCount};
      std::vector<Run> different;
      for (const Run& run : window.answer) {
        if (!run.equal) different.push_back(run);
      }
      m_commands.emplace_back(PackRuns{ticket, 0, window.offset, window.length, window.data,
                                       std::move(different), m_hello.runKey, work.n, 0,
                                       m_config.compress});
      return;
    }
  }
  FinalizeKept(work, window, result.block);
}

// `runs` carry our strong fingerprints, the window's answer theirs.
void SourceEngine::Admit(ResyncWork& work, SourceWindow& window, const std::vector<Run>& runs) {
  for (std::size_t i = 0; i < runs.size() && i < window.answer.size(); ++i) {
    AdmitRun(work, window, runs[i], window.answer[i]);
  }
}

void SourceEngine::AdmitRun(ResyncWork& work, SourceWindow& window, const Run& ours,
                            const Run& theirs) {
  InternalData buf{m_volumeIds[work.volume], RunOffset(window, ours), RunLength(window, ours),
                   window.data, 0};
  if (work.ds->AddBuffer(buf, buf.length) != DS_ERROR_OK) {
    return GiveUp(ErrorCode::kFailed,
                  "dataset " + std::to_string(work.n) + " refused a buffer of its own range");
  }
  m_kept = false;
  const bool weak = Planted(Fault::kWeakMatch);
  work.ds->AddLocalFingerprint(buf, theirs.equal ? ours.strong : kDiffers);
  work.ds->AddRemoteFingerprint(
      buf, theirs.equal ? (weak ? ours.strong : theirs.strong) : BufFingerprint{});
  if (m_kept) {
    buf.data.reset();
    window.kept.push_back(buf);
  } else {
    m_status.equalBytes += buf.length;
  }
}

// One unit carries what is kept of a window: it is queued under the first buffer, the others are
// finalized with units that are not sent.
void SourceEngine::FinalizeKept(ResyncWork& work, SourceWindow& window, const BlockPtr& block) {
  if (!window.kept.empty()) {
    if (!block) return GiveUp(ErrorCode::kFailed, "a window was packed without its data");
    PipeCompressedData unit;
    unit.totalBufs = window.kept.size();
    unit.payload = block;
    m_status.rawBytes += block->rawLength;
    m_status.packedBytes += RecordBytes(*block).size();
    work.ds->FinalizeBuffer(window.kept.front(), unit);
    PipeCompressedData silent;
    silent.toXmit = false;
    for (std::size_t i = 1; i < window.kept.size(); ++i) {
      work.ds->FinalizeBuffer(window.kept[i], silent);
    }
  }
  const std::uint64_t retained =
      window.kept.empty() ? 0 : std::min<std::uint64_t>(RecordBytes(*block).size(), window.length);
  m_held[work.n] -= window.length - retained;
  m_reserved -= window.length - retained;
  WindowSettled(work, window);
}

// Ends `work` with its last window.
void SourceEngine::WindowSettled(ResyncWork& work, SourceWindow& window) {
  window.stage = WindowStage::kSettled;
  --m_inHand;
  window.data.reset();
  window.fingerprints = {};
  window.answer = {};
  window.kept = {};
  m_status.comparedBytes += window.length;
  if (++work.settled < work.windows.size()) return;
  const auto ds = work.ds;
  m_resyncs.erase(work.n);
  ds->MarkDoneBuffers();
}

}  // namespace penstock
