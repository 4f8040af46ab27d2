// SPDX-License-Identifier: Apache-2.0
#include "capture/plugin_config.h"

#include <algorithm>
#include <charconv>
#include <map>

#include "engine/wire/messages.h"
#include "replicator/log.h"
#include "replicator/metrics_server.h"

namespace penstock {

namespace {

constexpr std::uint64_t kLeastMemory = 16U << 20U;
constexpr std::uint64_t kLeastDataset = 1U << 20U;

std::string TakeFlag(const std::string& key, const std::string& value, bool& out) {
  if (value != "true" && value != "false") return key + "=" + Escape(value, 64) + ": true or false";
  out = value == "true";
  return {};
}

}  // namespace

std::string ParseInterval(const std::string& text, std::uint64_t& out) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const std::string unit(end, text.data() + text.size());
  const std::map<std::string, std::uint64_t> units = {{"ms", 1}, {"s", 1'000}, {"m", 60'000}};
  const auto factor = units.find(unit);
  constexpr std::uint64_t kMost = 3'600'000;
  if (error != std::errc{} || factor == units.end() || value > kMost ||
      value * factor->second < 10 || value * factor->second > kMost) {
    return "'" + Escape(text, 64) + "' is no interval (as 500ms, 1s or 2m; 10ms to 60m)";
  }
  out = value * factor->second;
  return {};
}

std::string PluginConfig::TakeNumber(const std::string& key, const std::string& value) {
  const std::map<std::string, std::uint64_t*> sizes = {
      {"memory", &m_options.memory},
      {"spool-max", &m_options.spoolBytes},
      {"max-dataset", &m_options.datasetBytes},
      {"limit-rate", &m_options.connect.connection.rateLimit}};
  std::string fault;
  if (key == "interval") {
    fault = ParseInterval(value, m_options.intervalMs);
  } else if (key == "jobs") {
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), m_jobs);
    if (error != std::errc{} || end != value.data() + value.size()) fault = "not a number";
  } else if (key == "spool-max" && value == "0") {
    m_options.spoolBytes = 0;
  } else {
    fault = ParseBytes(value, *sizes.at(key));
  }
  return fault.empty() ? fault : key + ": " + fault;
}

std::string PluginConfig::Take(const std::string& key, const std::string& value) {
  const std::map<std::string, std::string*> texts = {{"group", &m_options.group},
                                                     {"to", &m_to},
                                                     {"state", &m_options.stateDirectory},
                                                     {"spool", &m_options.spoolDirectory},
                                                     {"compress", &m_compress},
                                                     {"metrics", &m_metrics},
                                                     {"tls-certs", &m_security.tlsCerts},
                                                     {"tls-psk", &m_security.tlsPsk},
                                                     {"tls-name", &m_security.tlsName},
                                                     {"log-level", &m_log.level},
                                                     {"log-format", &m_log.format}};
  if (const auto text = texts.find(key); text != texts.end()) {
    *text->second = value;
    return {};
  }
  if (key == "plaintext") return TakeFlag(key, value, m_security.plaintext);
  if (key == "take-over") return TakeFlag(key, value, m_options.takeOver);
  for (const char* number :
       {"memory", "spool-max", "max-dataset", "limit-rate", "interval", "jobs"}) {
    if (key == number) return TakeNumber(key, value);
  }
  NamedPaths paths;
  auto fault = ParseVolumes({key == "volume" ? value : key + "=" + value}, paths);
  if (!fault.empty()) return fault;
  const bool isTwice =
      std::any_of(m_options.volumes.begin(), m_options.volumes.end(),
                  [&](const auto& volume) { return volume.first == paths.front().first; });
  if (isTwice) return "volume " + paths.front().first + " is given twice";
  m_options.volumes.push_back(paths.front());
  return {};
}

std::string PluginConfig::Finish(LiveOptions& out) const {
  out = m_options;
  if (auto fault = Apply(m_log); !fault.empty()) return fault;
  if (m_to.empty()) return "where is the target? give to=ADDR:PORT";
  if (out.stateDirectory.empty()) return "give state=DIR: a directory for maps and spool";
  if (out.volumes.empty()) return "there is nothing to serve; give VOL=PATH";
  if (out.volumes.size() > kMaxVolumes) return "a group has at most 256 volumes";
  if (auto fault = CheckGroup(out.group); !fault.empty()) return "group: " + fault;
  if (auto fault = Endpoint::Parse(m_to, out.endpoint); !fault.empty()) return fault;
  if (auto fault = ParseCompress(m_compress, out.compress); !fault.empty()) return fault;
  if (!m_metrics.empty()) {
    if (auto fault = ParseMetricsEndpoint(m_metrics, out.metrics.emplace()); !fault.empty()) {
      return fault;
    }
  }
  auto fault = Apply(m_security, TlsSide::kClient, out.endpoint, out.connect.tls);
  if (!fault.empty()) return fault;
  if (out.memory < kLeastMemory) return "memory: at least 16M";
  if (out.datasetBytes < kLeastDataset || out.datasetBytes > out.memory / 2) {
    return "max-dataset: at least 1M, and at most half of the memory";
  }
  out.connect.allowPlaintext = m_security.plaintext;
  out.connect.peerName = m_security.tlsName;
  out.jobs = JobsOf(m_jobs);
  return {};
}

const char* PluginConfig::Help() {
  return "group=NAME            (required) name of the group at the target\n"
         "to=ADDR:PORT          (required) where the target listens, or unix:PATH\n"
         "state=DIR             (required) directory of change maps and spool, mode 0700\n"
         "VOL=PATH              (required) a volume, served as export VOL; several may be given\n"
         "volume=VOL=PATH       the same, for a volume with the name of another key\n"
         "tls-certs=DIR | tls-psk=FILE | plaintext=true   (required) as of penstock sync\n"
         "tls-name=NAME         name in the target's certificate\n"
         "interval=1s           how often a dataset is closed\n"
         "max-dataset=64M       and at how many bytes\n"
         "memory=256M           for what is not at the target yet\n"
         "spool=DIR             for what memory does not take (STATE/spool)\n"
         "spool-max=10G         at most; 0: no spool\n"
         "compress=auto         none, lz4, zstd[:LEVEL] or auto\n"
         "limit-rate=SIZE       bytes a second at most\n"
         "jobs=N                worker threads\n"
         "metrics=ADDR:PORT     serve metrics for Prometheus there, without TLS\n"
         "take-over=true        take the group up anew and compare everything\n"
         "log-level=info        trace, debug, info, warning or error\n"
         "log-format=text       text or json";
}

}  // namespace penstock
