// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_COMMON_LOG_H_
#define PENSTOCK_COMMON_LOG_H_

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <locale>
#include <new>
#include <optional>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "common/function_name.h"
#include "penstock/host/logger.h"
#include "penstock/host/request_id.h"
#include "penstock/log_proxy.h"

// The integers that a stream writes as numbers, bool and the characters left out.
template <class T>
concept LogInteger = std::same_as<T, int> || std::same_as<T, unsigned> || std::same_as<T, long> ||
    std::same_as<T, unsigned long> || std::same_as<T, long long> ||
    std::same_as<T, unsigned long long>;

// A number as a piece of sixteen hexadecimal digits.
struct Hex16 {
  std::uint64_t value;
};

// Streams pieces into one record. Texts, integers and addresses, which are nearly all pieces, go
// straight into the record's buffer; anything else through its own stream operator. What a piece
// looks like is the same either way; a stream's locale and flags take no part in it.
class LogPieces {
 public:
  explicit LogPieces(std::ostringstream&& record) : m_out(record) {}

  template <class T>
  LogPieces& operator<<(const T& piece) {
    if constexpr (std::same_as<T, bool>) {
      Put(piece ? "1" : "0");
    } else if constexpr (LogInteger<T>) {
      std::array<char, 24> digits;
      PutDigits(digits, std::to_chars(digits.data(), digits.data() + digits.size(), piece).ptr);
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      Put(piece);
    } else if constexpr (std::same_as<T, const void*>) {
      PutAddress(piece);
    } else if constexpr (std::same_as<T, Hex16>) {
      PutHex(piece.value);
    } else if constexpr (std::floating_point<T>) {
      m_out.imbue(std::locale::classic());
      m_out << piece;
    } else {
      m_out << piece;
    }
    return *this;
  }

 private:
  void PutHex(std::uint64_t value) {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    std::array<char, 16> text;
    for (std::size_t i = text.size(); i-- > 0; value >>= 4U) text[i] = kDigits[value & 0x0fU];
    Put({text.data(), text.size()});
  }

  void PutAddress(const void* address) {
    if (address == nullptr) {
      Put("0");
      return;
    }
    std::array<char, 24> digits{'0', 'x'};
    const auto value = reinterpret_cast<std::uintptr_t>(address);
    PutDigits(digits,
              std::to_chars(digits.data() + 2, digits.data() + digits.size(), value, 16).ptr);
  }

  void PutDigits(const std::array<char, 24>& digits, const char* end) {
    Put({digits.data(), static_cast<std::size_t>(end - digits.data())});
  }

  // As a stream's own insertion: a failure, memory exhaustion included, marks the stream and is not
  // thrown, because logging never fails towards its caller.
  void Put(std::string_view text) {
    if (!m_out.good()) return;
    try {
      const auto size = static_cast<std::streamsize>(text.size());
      if (m_out.rdbuf()->sputn(text.data(), size) == size) return;
    } catch (...) {  // NOLINT(bugprone-empty-catch): marked below
    }
    m_out.setstate(std::ios_base::badbit);
  }

  std::ostringstream& m_out;
};

// The address of an object, as a piece.
inline const void* Address(const void* object) { return object; }

// A flag as a word, as a piece.
inline const char* Word(bool flag) { return flag ? "true" : "false"; }

// Where pieces go that nobody reads: a stream that takes everything and keeps nothing. To make one
// for each record would cost more than all that the library does besides, so a thread has one.
class UnreadStream {
 public:
  // In the state of a new stream. It is never destroyed, so that it is there until the thread's
  // last statement; it owns nothing.
  static std::ostream& Take() {
    alignas(UnreadStream) static thread_local std::array<std::byte, sizeof(UnreadStream)> place;
    static thread_local UnreadStream* own = nullptr;
    if (own == nullptr) own = new (place.data()) UnreadStream;
    std::ostream& out = own->m_out;
    out.exceptions(std::ios_base::goodbit);
    out.clear();
    out.flags(std::ios_base::skipws | std::ios_base::dec);
    out.width(0);
    out.precision(6);
    out.fill(' ');
    return out;
  }
  UnreadStream(const UnreadStream&) = delete;
  UnreadStream& operator=(const UnreadStream&) = delete;

 private:
  class Buffer : public std::streambuf {
   protected:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
  };

  UnreadStream() : m_out(&m_buffer) {}

  Buffer m_buffer;
  std::ostream m_out;
};

// A piece that does nothing but write its text: left out of a record that is not emitted.
template <class T>
concept LogText = std::same_as<T, bool> || LogInteger<T> || std::same_as<T, const void*> ||
    std::same_as<T, Hex16> || std::is_convertible_v<const T&, std::string_view>;

// One statement: a record when its level reaches the threshold as the statement begins, and
// otherwise nothing but the pieces' own stream operators, which are called in any case, because
// some are the host's. Most records are below the threshold.
class LogStatement {
 public:
  LogStatement(int level, std::string&& prefix, std::uint64_t requestId, std::string_view label,
               unsigned int line) {
    if (level < CLogger::GetInstance().GetLevel()) return;
    m_record.emplace(level, std::move(prefix), requestId, std::string(label), line);
  }

  template <class T>
  LogStatement& operator<<(const T& piece) {
    if (m_record) {
      LogPieces(std::move(*m_record)) << piece;
    } else if constexpr (!LogText<T>) {
      if (m_unread == nullptr) m_unread = &UnreadStream::Take();
      *m_unread << piece;
    }
    return *this;
  }

 private:
  std::optional<LogProxy> m_record;
  std::ostream* m_unread = nullptr;
};

// Writes one record at `level` under the name `label`. The request id is fetched before the prefix.
#define PENSTOCK_LOG_AS(level, label, pieces)                                           \
  do {                                                                                  \
    static constexpr auto kLogLabel = CutFunctionName(label);                           \
    const std::uint64_t logRequestId = *TSP_RequestID.get();                            \
    LogStatement(level, GetMsgPrefix(), logRequestId, kLogLabel.View(), __LINE__)       \
        << 0 << pieces; /* NOLINT(bugprone-macro-parentheses): a chain of insertions */ \
  } while (false)

// Writes one record at `level` under the name of the enclosing function. A macro, because that name
// is the compiler's pretty-function text of the place where the statement stands.
#define PENSTOCK_LOG(level, pieces) PENSTOCK_LOG_AS(level, __PRETTY_FUNCTION__, pieces)

#endif  // PENSTOCK_COMMON_LOG_H_
