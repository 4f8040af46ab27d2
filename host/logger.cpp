// SPDX-License-Identifier: Apache-2.0
#include "penstock/host/logger.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <shared_mutex>
#include <utility>

namespace {

// printf into a string of any length. A format that vsnprintf refuses comes back as it stands, so
// that no message is lost.
std::string Format(const char* format, std::va_list args) {
  std::va_list again;
  va_copy(again, args);
  std::array<char, 512> buffer;
  const int length = std::vsnprintf(buffer.data(), buffer.size(), format, args);
  std::string text;
  if (length < 0) {
    text = format;
  } else if (static_cast<std::size_t>(length) < buffer.size()) {
    text.assign(buffer.data(), static_cast<std::size_t>(length));
  } else {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

const char* OrEmpty(const char* text) { return text == nullptr ? "" : text; }

// The message prefix. It is read for every log record, mostly while it is empty: that case costs
// one load.
class Prefix {
 public:
  std::string Get() const {
    if (!m_isSet.load(std::memory_order_acquire)) return {};
    const std::shared_lock lock(m_mutex);
    return m_text;
  }

  void Set(std::string text) {
    const std::unique_lock lock(m_mutex);
    m_text = std::move(text);
    m_isSet.store(!m_text.empty(), std::memory_order_release);
  }

 private:
  std::atomic<bool> m_isSet{false};
  mutable std::shared_mutex m_mutex;
  std::string m_text;
};

Prefix& ThePrefix() {
  static Prefix prefix;
  return prefix;
}

}  // namespace

CLogger& CLogger::GetInstance() {
  static CLogger logger;
  return logger;
}

int CLogger::GetLevel() const { return m_level.load(std::memory_order_relaxed); }
void CLogger::SetLevel(int level) { m_level.store(level, std::memory_order_relaxed); }

void CLogger::SetSink(Sink sink) {
  std::shared_ptr<const Sink> next;
  if (sink) next = std::make_shared<const Sink>(std::move(sink));
  {
    const std::lock_guard lock(m_sinkMutex);
    m_sink.swap(next);
  }
  // The earlier sink is released here, outside the lock: its captures may log.
}

void CLogger::LogEx(int level, const char* prefix, unsigned long long requestId,
                    const char* function, int line, const char* format, ...) {
  std::shared_ptr<const Sink> sink;
  {
    const std::lock_guard lock(m_sinkMutex);
    sink = m_sink;
  }
  if (!sink) return;
  LogRecord record{level, OrEmpty(prefix), requestId, OrEmpty(function), line, {}};
  std::va_list args;
  va_start(args, format);
  record.text = Format(format, args);
  va_end(args);
  (*sink)(record);
}

std::string GetMsgPrefix() { return ThePrefix().Get(); }
void SetMsgPrefix(std::string prefix) { ThePrefix().Set(std::move(prefix)); }
