// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_LOG_PROXY_H_
#define PENSTOCK_LOG_PROXY_H_

#include <cstdint>
#include <sstream>
#include <string>

#include "penstock/export.h"

// Returns the short name of a function from its pretty-function text: what stands between the last
// blank before the first "(" and that "(", with "()" appended. A text without "(" comes back as it
// is. "DS_ERROR Pipeline::Ack(uint64_t, size_t*)" gives "Pipeline::Ack()".
//
// Threads: any.
PENSTOCK_EXPORT std::string GetFunctionName(const std::string& prettyFunction);

// One log record: a stream into which a statement writes the pieces of its message, and which hands
// the finished text to CLogger when it is destroyed at the statement's end. It lives on the stack
// of its thread and is never shared.
//
// The first character streamed is dropped when the record is finished, so that a statement can
// begin with an insertion of the integer 0 on a temporary. The record is emitted when its level is
// at or above the threshold of the moment of its destruction; pieces are streamed in any case. "%"
// becomes a blank, because the logger takes the text for its format.
//
// Threads: the one that made it.
//
//   LogProxy(LOG_INFO, GetMsgPrefix(), *TSP_RequestID.get(), GetFunctionName(__PRETTY_FUNCTION__),
//            __LINE__)
//       << 0 << "opened " << path;
class PENSTOCK_EXPORT LogProxy : public std::ostringstream {
 public:
  // Begins a record. The strings are copied.
  LogProxy(int level, const std::string& prefix, unsigned long requestId,
           const std::string& function, unsigned int line);

  // The same, for strings that the caller has no more use of.
  LogProxy(int level, std::string&& prefix, unsigned long requestId, std::string&& function,
           unsigned int line);

  LogProxy(const LogProxy&) = delete;
  LogProxy& operator=(const LogProxy&) = delete;

  // Emits the record. An exception in here ends the process; so does an emitted record into which
  // nothing was streamed.
  //
  // Calls: CLogger::GetLevel, and CLogger::LogEx when the record is emitted.
  ~LogProxy() override;

 private:
  std::int32_t m_level;
  std::string m_prefix;
  std::uint64_t m_requestId;
  std::string m_function;
  std::uint32_t m_line;
};

#endif  // PENSTOCK_LOG_PROXY_H_
