// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SERIALIZER_SERIALIZER_FIXTURE_H_
#define PENSTOCK_TESTS_SERIALIZER_SERIALIZER_FIXTURE_H_

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "penstock/host.h"
#include "penstock/penstock.h"
#include "tests/serializer/file_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/make.h"

using ByteString = std::vector<std::uint8_t>;

// Dataset files of volume 1 in a fresh folder, which goes with the test, and every log record.
class SerializerTest : public testing::Test {
 protected:
  static constexpr const char* kVolume = "00000000-0000-0000-0000-000000000001";

  SerializerTest() {
    std::string name = testing::TempDir() + "penstock.XXXXXX";
    const char* made = ::mkdtemp(name.data());
    if (made != nullptr) m_base = made;
  }
  ~SerializerTest() override {
    if (!m_base.empty()) std::filesystem::remove_all(m_base);
  }
  void SetUp() override { ASSERT_FALSE(m_base.empty()); }

  DatasetSerializer File(std::uint64_t n) const { return {n, Volume(1), m_base}; }

  // A start record of `count` entries whose bytes after the count's own are all different.
  static std::shared_ptr<OM_DP::DatasetStartv2> Start(std::uint16_t count) {
    auto start = OM_DP::MakeDatasetStartv2(count);
    auto* bytes = reinterpret_cast<std::uint8_t*>(start.get());
    for (std::size_t i = 0; i < 44U + 16U * count; ++i) {
      if (i != 40 && i != 41) bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
    }
    return start;
  }
  // A unit of `length` bytes of body, alike.
  static std::shared_ptr<OM_DP::CompressedData> Data(std::uint32_t length) {
    auto data = OM_DP::MakeCompressedData(length);
    auto* bytes = reinterpret_cast<std::uint8_t*>(data.get());
    for (std::size_t i = 0; i < 20U + length; ++i) {
      if (i < 16 || i > 19) bytes[i] = static_cast<std::uint8_t>(i * 11 + 3);
    }
    return data;
  }
  // The first `count` bytes of a record.
  template <class Record>
  static ByteString Of(const std::shared_ptr<Record>& record, std::size_t count) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(record.get());
    return {bytes, bytes + count};
  }

  // The command header in front of a record, byte by byte; the checksum bit by bit.
  static ByteString Header(std::uint32_t payloadSize, std::uint32_t type) {
    ByteString header(24);
    Put32(header, 0, payloadSize);
    Put32(header, 4, type);
    Put32(header, 8, 2);
    Put32(header, 12, 3);
    std::uint32_t crc = 0xffffffffU;
    for (std::size_t i = 0; i < 20; ++i) {
      crc ^= header[i];
      for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0x82f63b78U : 0U);
    }
    Put32(header, 20, ~crc);
    return header;
  }
  static void Put32(ByteString& bytes, std::size_t at, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }

  // The bytes of a file; one that can't be read fails the test.
  static ByteString Bytes(const std::string& path) {
    ByteString bytes;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
      ADD_FAILURE() << "can't read " << path;
      return bytes;
    }
    for (int byte = std::fgetc(file); byte != EOF; byte = std::fgetc(file)) {
      bytes.push_back(static_cast<std::uint8_t>(byte));
    }
    std::fclose(file);
    return bytes;
  }
  static ByteString Join(std::initializer_list<ByteString> parts) {
    ByteString all;
    for (const ByteString& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  }

  Lines Log() { return m_log.Take(); }

  std::string m_base;
  LogCapture m_log;
};

#endif  // PENSTOCK_TESTS_SERIALIZER_SERIALIZER_FIXTURE_H_
