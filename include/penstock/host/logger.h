// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_LOGGER_H_
#define PENSTOCK_HOST_LOGGER_H_

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "penstock/export.h"

// The severity of a log record; higher is more severe. 3 is not used. <syslog.h> defines macros of
// the same names: include it in no file that includes this one.
enum LogLevel {
  LOG_DEBUG = 0,   // detail of each buffer
  LOG_INFO = 1,    // progress, and requests that were refused
  LOG_NOTICE = 2,  // milestones of a dataset or of the pipeline
  LOG_ERROR = 4,   // failures
};

// One finished log record, as a sink receives it.
struct LogRecord {
  int level = 0;                     // a LogLevel
  std::string prefix;                // GetMsgPrefix() of the moment
  unsigned long long requestId = 0;  // the writing thread's request id
  std::string function;              // the short function name, for example "Pipeline::Ack()"
  int line = 0;                      // the source line of the statement
  std::string text;                  // the message, uncut
};

// The process-wide logger. It hands each record to the installed sink; without one, records are
// dropped.
//
// States: none but the threshold and the sink.
// Threads: every call may be made from any thread at any time. A sink may be called from several
// threads at once, and may still be running, for a record that was begun before, when SetSink
// returns.
//
//   CLogger::GetInstance().SetLevel(LOG_INFO);
//   CLogger::GetInstance().SetSink([](const LogRecord& r) { std::cerr << r.text << '\n'; });
class PENSTOCK_HOST_EXPORT CLogger {
 public:
  using Sink = std::function<void(const LogRecord&)>;

  // Returns the logger of this process, constructed on first use.
  static CLogger& GetInstance();

  CLogger(const CLogger&) = delete;
  CLogger& operator=(const CLogger&) = delete;

  // Returns the threshold: records below it are not emitted. LOG_NOTICE at first.
  int GetLevel() const;

  // Replaces the threshold. It takes effect for records that are finished from now on.
  void SetLevel(int level);

  // Installs `sink` in place of the earlier one; an empty function removes it. A sink must not
  // throw: a record that is being written can't report it, and the process ends.
  void SetSink(Sink sink);

  // Formats the message as printf does and hands the record to the sink, whatever its level: the
  // threshold is for the caller to compare first, so that a record below it costs no formatting.
  // `prefix` and `function` are copied; null counts as empty. A format that can't be printed is
  // handed on as it stands.
  //
  // REQUIRES: `format` and its arguments agree, as for printf.
  // Calls: the sink, on this thread.
  void LogEx(int level, const char* prefix, unsigned long long requestId, const char* function,
             int line, const char* format, ...);

 private:
  CLogger() = default;
  ~CLogger() = default;

  std::atomic<int> m_level{LOG_NOTICE};
  std::mutex m_sinkMutex;
  std::shared_ptr<const Sink> m_sink;
};

// Returns the process-wide message prefix that every log record carries; empty at first.
//
// Threads: any.
PENSTOCK_HOST_EXPORT std::string GetMsgPrefix();

// Replaces the message prefix for records that are begun from now on.
//
// Threads: any.
PENSTOCK_HOST_EXPORT void SetMsgPrefix(std::string prefix);

#endif  // PENSTOCK_HOST_LOGGER_H_
