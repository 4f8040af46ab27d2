// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_RUNNER_VERIFY_H_
#define PENSTOCK_REPLICATOR_RUNNER_VERIFY_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "replicator/compare_local.h"
#include "replicator/progress.h"
#include "replicator/runner_source.h"

namespace penstock {

// Compares volumes with a target's copies: fingerprints go there window by window, many at a time;
// what looks equal counts as equal only by the strong fingerprint. Changes nothing on either side.
//
// Threads: the loop's, or before it runs.
class VerifyRunner {
 public:
  // Uses the volumes, group, place and jobs of the options.
  VerifyRunner(EventLoop& loop, SourceOptions options, ProgressPrinter::Style style);
  ~VerifyRunner();
  VerifyRunner(const VerifyRunner&) = delete;
  VerifyRunner& operator=(const VerifyRunner&) = delete;

  // `onEnd` is called once, with an empty text, or why it could not be done.
  void Start(std::function<void(const std::string& fault, Comparison)> onEnd);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_RUNNER_VERIFY_H_
