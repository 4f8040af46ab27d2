// SPDX-License-Identifier: Apache-2.0
#include "penstock/log_proxy.h"

#include <algorithm>
#include <utility>

#include "common/function_name.h"
#include "penstock/host/logger.h"

std::string GetFunctionName(const std::string& prettyFunction) {
  const FunctionNameSpan span = FindFunctionName(prettyFunction);
  std::string name = prettyFunction.substr(span.begin, span.end - span.begin);
  if (span.isCall) name += "()";
  return name;
}

LogProxy::LogProxy(int level, const std::string& prefix, unsigned long requestId,
                   const std::string& function, unsigned int line)
    : m_level(level),
      m_prefix(prefix),
      m_requestId(requestId),
      m_function(function),
      m_line(line) {}

LogProxy::LogProxy(int level, std::string&& prefix, unsigned long requestId, std::string&& function,
                   unsigned int line)
    : m_level(level),
      m_prefix(std::move(prefix)),
      m_requestId(requestId),
      m_function(std::move(function)),
      m_line(line) {}

LogProxy::~LogProxy() {
  CLogger& logger = CLogger::GetInstance();
  if (m_level < logger.GetLevel()) return;
  std::string text = str();
  // The logger takes the text for its format and gets no further arguments.
  std::replace(text.begin(), text.end(), '%', ' ');
  // Dropping the leading 0 of an empty text throws, which ends the process here.
  text = text.substr(1);
  logger.LogEx(m_level, m_prefix.c_str(), m_requestId, m_function.c_str(), static_cast<int>(m_line),
               text.c_str());
}
