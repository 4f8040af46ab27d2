// SPDX-License-Identifier: Apache-2.0
// A source engine whose volumes are in use, with a real capture; what it asks its host for is
// answered by the test.
#ifndef PENSTOCK_TESTS_ENGINE_LIVE_RIG_H_
#define PENSTOCK_TESTS_ENGINE_LIVE_RIG_H_

#include <memory>
#include <string>

#include "engine/capture.h"
#include "tests/engine/source_rig.h"

namespace penstock {

class LiveRig : public SourceRig {
 protected:
  LiveRig() {
    m_config.epoch = 1;
    m_config.compress = {Codec::kRaw, 1, false};
    m_state = VolumeState::kGood;
    m_options.extentBytes = 4096;
  }
  void Open() {
    m_capture = std::make_unique<Capture>(m_options);
    m_config.feed = m_capture.get();
  }

  // What the host is asked for, work apart: "spool 1, read 1".
  std::string Asked() const {
    Happened all;
    for (const SourceCommand& job : m_jobs) {
      if (const auto* write = std::get_if<SpoolWrite>(&job)) {
        all.Add("spool " + Number(write->start.n));
      } else if (const auto* read = std::get_if<SpoolRead>(&job)) {
        all.Add("read " + Number(read->start.n));
      } else if (const auto* remove = std::get_if<SpoolRemove>(&job)) {
        all.Add("remove " + Number(remove->start.n));
      } else if (std::holds_alternative<SpoolDrop>(job)) {
        all.Add("drop");
      } else if (const auto* checkpoint = std::get_if<Checkpoint>(&job)) {
        all.Add("checkpoint " + Number(checkpoint->flushed));
      } else if (std::holds_alternative<SaveMaps>(job)) {
        all.Add("save");
      }
    }
    return all.Take();
  }
  static const char* ErrorOf(IoStatus status) { return status == IoStatus::kOk ? "" : "trouble"; }
  // Answers the oldest command of its kind: Checkpoint or SaveMaps.
  template <class Command>
  void Complete(IoStatus status) {
    const auto command = TakeJob<Command>();
    m_engine->Completed(CheckpointDone{command.ticket, status, ErrorOf(status)}, m_now);
  }
  // Does all work, answers all questions, and leaves the rest.
  std::string Work() {
    Happened all;
    const auto add = [&](const std::string& text) {
      if (!text.empty()) all.Add(text);
    };
    add(Out());
    for (;;) {
      if (Jobs<FetchWindow>() > 0) {
        add(Do<FetchWindow>());
      } else if (Jobs<PackRuns>() > 0) {
        add(Do<PackRuns>());
      } else if (Jobs<PackBuffers>() > 0) {
        add(Do<PackBuffers>());
      } else if (!m_queries.empty()) {
        add(AnswerOne());
      } else {
        return all.Take();
      }
    }
  }

  CaptureOptions m_options;
  std::unique_ptr<Capture> m_capture;
  std::uint64_t m_guest = 0;
};

}  // namespace penstock

#endif  // PENSTOCK_TESTS_ENGINE_LIVE_RIG_H_
