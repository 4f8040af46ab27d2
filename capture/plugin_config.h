// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_CAPTURE_PLUGIN_CONFIG_H_
#define PENSTOCK_CAPTURE_PLUGIN_CONFIG_H_

#include <string>
#include <utility>
#include <vector>

#include "capture/live_source.h"
#include "replicator/options.h"

namespace penstock {

// What the plugin is told as KEY=VALUE: the keys are the long options of `penstock serve`; any
// other key is a volume's name, and its value the volume's path.
class PluginConfig {
 public:
  // Returns an empty text, or what is wrong with the value.
  std::string Take(const std::string& key, const std::string& value);
  // Returns an empty text, or what is wrong or missing.
  std::string Finish(LiveOptions& out) const;
  static const char* Help();

 private:
  std::string TakeNumber(const std::string& key, const std::string& value);

  std::string m_to;
  SecurityFlags m_security;
  LogFlags m_log{.level = "info"};
  std::string m_compress = "auto";
  std::string m_metrics;
  unsigned m_jobs = 0;
  LiveOptions m_options;
};

// "500ms", "1s", "2m": milliseconds, at least 10. Returns an empty text, or what is wrong.
std::string ParseInterval(const std::string& text, std::uint64_t& out);

}  // namespace penstock

#endif  // PENSTOCK_CAPTURE_PLUGIN_CONFIG_H_
