// SPDX-License-Identifier: Apache-2.0
#include "minimal_host/dataset_file.h"

#include <xxhash.h>

#include <array>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "minimal_host/failure.h"
#include "minimal_host/unit.h"

namespace {

constexpr std::size_t kEntryBytes = 16;
constexpr std::size_t kMaxPayloadBytes = std::size_t{4} << 20U;

// CRC-32C, a bit at a time: a reader of its own, so that it does not repeat the writer's mistakes.
std::uint32_t Crc32c(const std::uint8_t* data, std::size_t size) {
  std::uint32_t crc = 0xFFFFFFFFU;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0x82F63B78U : 0U);
  }
  return ~crc;
}

template <class Record>
Record ReadRecord(const std::vector<std::uint8_t>& bytes) {
  Record record;
  std::memcpy(&record, bytes.data(), sizeof(record));
  return record;
}

}  // namespace

std::string DatasetFilePath(const std::string& spool, const UuidT& volume, std::uint64_t n) {
  std::ostringstream path;
  path << DatasetBasePath(spool, UUID::MakeUUID(volume), n) << std::hex << std::setw(16)
       << std::setfill('0') << n << ".ds";
  return path.str();
}

DatasetFile::DatasetFile(const std::string& path, std::uint64_t n, const UuidT& volume)
    : m_file(path) {
  ReadStart(n, volume);
}

void DatasetFile::Fail(const std::string& what) const {
  throw Failure("dataset file '" + m_file.Path() + "', record at byte " +
                std::to_string(m_recordAt) + ": " + what + ": the file is damaged, write it again");
}

std::optional<DPPCmdHeader> DatasetFile::ReadCommand() {
  m_recordAt = m_at;
  std::array<std::uint8_t, sizeof(DPPCmdHeader)> bytes{};
  const std::size_t size = m_file.Read(bytes.data(), bytes.size());
  m_at += size;
  if (size == 0) return std::nullopt;
  if (size < bytes.size()) Fail("the command header is cut off");
  DPPCmdHeader command;
  std::memcpy(&command, bytes.data(), bytes.size());
  if (command.crc != Crc32c(bytes.data(), offsetof(DPPCmdHeader, crc))) {
    Fail("the command header's checksum is wrong");
  }
  return command;
}

void DatasetFile::ReadPayload(const DPPCmdHeader& command, std::size_t least) {
  if (command.payloadSize < least || command.payloadSize > kMaxPayloadBytes) {
    Fail("a payload of " + std::to_string(command.payloadSize) + " bytes can't be");
  }
  m_payload.resize(command.payloadSize);
  const std::size_t size = m_file.Read(m_payload.data(), m_payload.size());
  m_at += size;
  if (size < m_payload.size()) Fail("the payload is cut off");
}

void DatasetFile::ReadStart(std::uint64_t n, const UuidT& volume) {
  const std::optional<DPPCmdHeader> command = ReadCommand();
  if (!command) Fail("the file is empty");
  if (command->type != static_cast<std::uint32_t>(DPPCmdType::DatasetStartv2)) {
    Fail("a start record is missing");
  }
  ReadPayload(*command, sizeof(OM_DP::DatasetStartv2));
  const auto start = ReadRecord<OM_DP::DatasetStartv2>(m_payload);
  if (m_payload.size() != sizeof(start) + start.count * kEntryBytes) {
    Fail("the number of entries does not fit the payload");
  }
  if (start.n != n) Fail("this is dataset " + std::to_string(start.n));
  if (start.formatVersion != kFormatVersion) Fail("the format version is unknown");
  if (start.count != 1 ||
      std::memcmp(m_payload.data() + sizeof(start), volume.bytes.data(), kEntryBytes) != 0) {
    Fail("the volume is another one");
  }
}

std::optional<std::vector<Extent>> DatasetFile::NextUnit() {
  const std::optional<DPPCmdHeader> command = ReadCommand();
  if (!command) return std::nullopt;
  if (command->type != static_cast<std::uint32_t>(DPPCmdType::CompressedData)) {
    Fail("this is no unit");
  }
  ReadPayload(*command, sizeof(OM_DP::CompressedData));
  const auto unit = ReadRecord<OM_DP::CompressedData>(m_payload);
  if (m_payload.size() != sizeof(unit) + unit.length) Fail("the length does not fit the payload");
  const std::uint8_t* body = m_payload.data() + sizeof(unit);
  if (unit.bodyHash != XXH3_64bits(body, unit.length)) Fail("the body's hash is wrong");
  if (unit.codec != kCodecRaw || unit.volumeIndex != 0) Fail("the codec or volume is unknown");

  const std::uint64_t table = std::uint64_t{unit.extentCount} * kExtentBytes;
  if (table + unit.rawLength != unit.length) Fail("the extents do not fit the length");
  std::vector<Extent> extents(unit.extentCount);
  const std::uint8_t* data = body + table;
  std::uint64_t total = 0;
  for (Extent& extent : extents) {
    std::memcpy(&extent.offset, body, sizeof(extent.offset));
    std::memcpy(&extent.length, body + sizeof(extent.offset), sizeof(extent.length));
    extent.data = data + total;
    total += extent.length;
    if (total > unit.rawLength) Fail("the extents are longer than their data");
    body += kExtentBytes;
  }
  if (total != unit.rawLength) Fail("the extents are shorter than their data");
  return extents;
}
