// SPDX-License-Identifier: Apache-2.0
#include "replicator/log.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "penstock/host/logger.h"

namespace penstock {

namespace {

struct Level {
  std::string_view name;
  Severity severity;
  spdlog::level::level_enum level;
};
constexpr std::array<Level, 5> kLevels{{{"trace", Severity::kTrace, spdlog::level::trace},
                                        {"debug", Severity::kDebug, spdlog::level::debug},
                                        {"info", Severity::kInfo, spdlog::level::info},
                                        {"warning", Severity::kWarning, spdlog::level::warn},
                                        {"error", Severity::kError, spdlog::level::err}}};

const Level& LevelOf(Severity severity) { return kLevels.at(static_cast<std::size_t>(severity)); }

// Hands finished lines to a function.
class FunctionSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit FunctionSink(std::function<void(std::string_view)> output)
      : m_output(std::move(output)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    m_output({line.data(), line.size()});
  }
  void flush_() override {}

 private:
  std::function<void(std::string_view)> m_output;
};

class ProgramLog {
 public:
  ProgramLog() { Rebuild(); }

  void SetUp(const LogOptions& options) {
    m_options = options;
    Rebuild();
  }

  void SetOutput(std::function<void(std::string_view)> output) {
    m_output = std::move(output);
    Rebuild();
  }

  bool IsLogged(Severity severity) const { return m_logger->should_log(LevelOf(severity).level); }

  void Write(Severity severity, std::string_view text, LogFields fields) {
    const auto line = m_options.json ? JsonLine(severity, text, fields) : TextLine(text, fields);
    m_logger->log(LevelOf(severity).level, spdlog::string_view_t(line.data(), line.size()));
  }

 private:
  void Rebuild() {
    spdlog::sink_ptr sink;
    if (m_output) {
      sink = std::make_shared<FunctionSink>(m_output);
    } else {
      sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    }
    m_logger = std::make_shared<spdlog::logger>("penstock", std::move(sink));
    m_logger->set_level(LevelOf(m_options.level).level);
    m_logger->flush_on(spdlog::level::trace);
    m_logger->set_error_handler([](const std::string&) {});  // nobody is left to tell
    // In JSON the time and the level are put beside the text: both stand in front of it here, too.
    if (m_options.json) {
      m_logger->set_pattern(R"({"time":"%Y-%m-%dT%H:%M:%S.%eZ",%v)",
                            spdlog::pattern_time_type::utc);
    } else {
      m_logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %-7l %v");
    }
  }

  static std::string TextLine(std::string_view text, LogFields fields) {
    auto line = Escape(text);
    for (const auto& [name, value] : fields) {
      line += ' ';
      line += name;
      line += '=';
      line += Escape(value);
    }
    return line;
  }

  // A value that is no UTF-8 can't break the line: its bytes are escaped first.
  static std::string JsonLine(Severity severity, std::string_view text, LogFields fields) {
    nlohmann::ordered_json record;
    record["level"] = LevelOf(severity).name;
    record["text"] = Escape(text);
    for (const auto& [name, value] : fields) record[std::string(name)] = Escape(value);
    return record.dump().substr(1);
  }

  LogOptions m_options;
  std::function<void(std::string_view)> m_output;
  std::shared_ptr<spdlog::logger> m_logger;
};

ProgramLog& TheLog() {
  static ProgramLog log;
  return log;
}

Severity SeverityOf(int level) {
  if (level >= LOG_ERROR) return Severity::kError;
  return level >= LOG_NOTICE ? Severity::kDebug : Severity::kTrace;
}

// So that what is not written costs the library no formatting.
int LibraryLevel(Severity severity) {
  if (severity == Severity::kTrace) return LOG_DEBUG;
  return severity == Severity::kDebug ? LOG_NOTICE : LOG_ERROR;
}

// A dataset that was closed while the one before it was still being compared is closed once more by
// its successor. The library calls that an error of its host; here it is how points are closed.
bool IsExpected(const LogRecord& record) {
  return record.text.starts_with("Finalize buffer is not empty");
}

// Whoever called the library looks at errno afterwards, to find out why a write failed.
void TakeRecord(const LogRecord& record) {
  const int error = errno;
  const auto severity = IsExpected(record) ? Severity::kDebug : SeverityOf(record.level);
  if (IsLogged(severity)) Log(severity, record.prefix + record.text, {{"at", record.function}});
  errno = error;
}

}  // namespace

std::string ParseLogLevel(std::string_view text, Severity& out) {
  for (const auto& level : kLevels) {
    if (level.name != text) continue;
    out = level.severity;
    return {};
  }
  return "no such log level; use trace, debug, info, warning or error";
}

std::string ParseLogFormat(std::string_view text, bool& json) {
  if (text != "text" && text != "json") return "no such log format; use text or json";
  json = text == "json";
  return {};
}

void SetUpLog(const LogOptions& options) {
  TheLog().SetUp(options);
  CLogger::GetInstance().SetLevel(LibraryLevel(options.level));
  CLogger::GetInstance().SetSink(TakeRecord);
}

void SetLogOutput(std::function<void(std::string_view line)> output) {
  TheLog().SetOutput(std::move(output));
}

bool IsLogged(Severity severity) { return TheLog().IsLogged(severity); }

void Log(Severity severity, std::string_view text, LogFields fields) {
  try {
    if (TheLog().IsLogged(severity)) TheLog().Write(severity, text, fields);
  } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for a record; the program goes on
  }
}

std::string Escape(std::string_view text, std::size_t limit) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const bool isCut = text.size() > limit;
  std::string out;
  for (const char c : text.substr(0, limit)) {
    if (c >= ' ' && c <= '~' && c != '\\') {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out += {'\\', 'x', kDigits[byte / 16U], kDigits[byte % 16U]};
    }
  }
  if (isCut) out += "...";
  return out;
}

}  // namespace penstock
