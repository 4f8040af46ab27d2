// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_FUZZ_BYTE_SOURCE_H_
#define PENSTOCK_FUZZ_BYTE_SOURCE_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "penstock/host.h"
#include "penstock/penstock.h"

// Ends the run with the place and the text of the rule that was broken.
#define FUZZ_CHECK(rule)                                                           \
  do {                                                                             \
    if (!(rule)) {                                                                 \
      std::fprintf(stderr, "%s:%d: broken rule: %s\n", __FILE__, __LINE__, #rule); \
      std::abort();                                                                \
    }                                                                              \
  } while (false)

// Reads the fuzzer's input as choices; behind its end every byte is 0.
class ByteSource {
 public:
  ByteSource(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

  bool AtEnd() const { return m_at >= m_size; }
  std::uint8_t Byte() { return AtEnd() ? std::uint8_t{0} : m_data[m_at++]; }
  bool Flag() { return (Byte() & 1U) != 0; }
  std::uint32_t Below(std::uint32_t limit) { return Byte() % limit; }

  // Mostly a small multiple of 512; now and then a number close to 2^64.
  std::uint64_t Offset() {
    const std::uint8_t byte = Byte();
    return byte < 248 ? std::uint64_t{byte} * 512 : ~std::uint64_t{0} - (byte - 248U) * 1000U;
  }
  std::uint32_t Length() {
    const std::uint8_t byte = Byte();
    if (byte < 250) return byte * 256U;
    return ~std::uint32_t{0} - (byte - 250U);
  }

  // A buffer of one of eight volumes.
  InternalData Buffer() {
    static const std::shared_ptr<const std::uint8_t[]> kBytes = std::make_shared<std::uint8_t[]>(1);
    InternalData buf;
    const std::uint8_t byte = Byte();
    buf.volume.bytes[0] = byte & 7U;
    if ((byte & 8U) != 0) buf.data = kBytes;
    buf.offset = Offset();
    buf.length = Length();
    return buf;
  }

  // A fingerprint: of zeroes, or one of seven that differ in their last byte only.
  BufFingerprint Print() {
    BufFingerprint fp;
    fp.bytes.back() = Byte() & 7U;
    return fp;
  }

  // A unit over a few buffers, whose count is right or not.
  PipeCompressedData Unit() {
    PipeCompressedData unit;
    const std::uint8_t byte = Byte();
    unit.toXmit = (byte & 1U) != 0;
    unit.totalBufs = (byte >> 1U) & 3U;
    for (std::uint32_t i = (byte >> 3U) & 3U; i > 0; --i) {
      const InternalData buf = Buffer();
      unit.origBuffers[buf.volume].push_back(buf);
    }
    return unit;
  }

  // Sets the logger for this run: every record formatted for a sink that looks at it, or none.
  void ChooseLogging() {
    if (!Flag()) {
      CLogger::GetInstance().SetLevel(LOG_NOTICE);
      CLogger::GetInstance().SetSink({});
      return;
    }
    CLogger::GetInstance().SetLevel(LOG_DEBUG);
    CLogger::GetInstance().SetSink([](const LogRecord& record) {
      FUZZ_CHECK(record.function.ends_with("()"));
      FUZZ_CHECK(record.text.find('%') == std::string::npos);
    });
  }

 private:
  const std::uint8_t* m_data;
  std::size_t m_size;
  std::size_t m_at = 0;
};

#endif  // PENSTOCK_FUZZ_BYTE_SOURCE_H_
