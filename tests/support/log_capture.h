// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SUPPORT_LOG_CAPTURE_H_
#define PENSTOCK_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "penstock/host.h"

// Catches every log record while it lives, from LOG_DEBUG up, and puts the logger back afterwards.
// A record is held as one line, "<level letter> <function> <text>": level letters D, I, N, E.
//
// Threads: records may come from any thread; the other calls from the test's own.
class LogCapture {
 public:
  explicit LogCapture(int level = LOG_DEBUG) : m_levelBefore(CLogger::GetInstance().GetLevel()) {
    CLogger::GetInstance().SetLevel(level);
    CLogger::GetInstance().SetSink([this](const LogRecord& record) { Add(record); });
  }
  ~LogCapture() {
    CLogger::GetInstance().SetSink({});
    CLogger::GetInstance().SetLevel(m_levelBefore);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Returns the lines caught since the last call, and forgets them.
  std::vector<std::string> Take() {
    const std::lock_guard lock(m_mutex);
    m_records.clear();
    return std::exchange(m_lines, {});
  }

  // Returns the whole records caught since the last Take.
  std::vector<LogRecord> Records() const {
    const std::lock_guard lock(m_mutex);
    return m_records;
  }

 private:
  static char Letter(int level) {
    switch (level) {
      case LOG_DEBUG: return 'D';
      case LOG_INFO: return 'I';
      case LOG_NOTICE: return 'N';
      case LOG_ERROR: return 'E';
      default: return '?';
    }
  }

  void Add(const LogRecord& record) {
    const std::lock_guard lock(m_mutex);
    m_lines.push_back(std::string(1, Letter(record.level)) + " " + record.function + " " +
                      record.text);
    m_records.push_back(record);
  }

  int m_levelBefore;
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lines;
  std::vector<LogRecord> m_records;
};

#endif  // PENSTOCK_TESTS_SUPPORT_LOG_CAPTURE_H_
