// SPDX-License-Identifier: Apache-2.0
#include "penstock/host/commands.h"

#include <bit>
#include <cstddef>
#include <new>
#include <ostream>
#include <string>

#include "host/crc32c.h"

static_assert(std::endian::native == std::endian::little,
              "records are written straight from memory");
static_assert(offsetof(DPPCmdHeader, crc) == 20);
static_assert(offsetof(OM_DP::DatasetStartv2, count) == 40);
static_assert(offsetof(OM_DP::CompressedData, length) == 16);

namespace {

// One zeroed block of memory: the record and, behind it, `tail` bytes.
template <class Record>
std::shared_ptr<Record> MakeRecord(std::size_t tail) {
  const auto bytes = std::make_shared<std::uint8_t[]>(sizeof(Record) + tail);
  return {bytes, new (bytes.get()) Record{}};
}

}  // namespace

std::ostream& operator<<(std::ostream& out, DPPCmdType type) {
  switch (type) {
    case DPPCmdType::DatasetStartv2: return out << "DatasetStartv2";
    case DPPCmdType::CompressedData: return out << "CompressedData";
  }
  return out << "DPPCmdType(" + std::to_string(static_cast<std::uint32_t>(type)) + ")";
}

std::shared_ptr<DPPCmdHeader> CreateDppHeader(unsigned payloadSize, DPPCmdType type,
                                              DPPCmdHeaderFlags flags) {
  auto header = std::make_shared<DPPCmdHeader>();
  header->payloadSize = payloadSize;
  header->type = static_cast<std::uint32_t>(type);
  header->a = flags.a;
  header->b = flags.b;
  header->c = flags.c;
  header->d = flags.d;
  header->e = flags.e;
  header->crc =
      Crc32c(reinterpret_cast<const std::uint8_t*>(header.get()), offsetof(DPPCmdHeader, crc));
  return header;
}

namespace OM_DP {

std::shared_ptr<DatasetStartv2> MakeDatasetStartv2(std::uint16_t count) {
  auto record = MakeRecord<DatasetStartv2>(std::size_t{16} * count);
  record->count = count;
  return record;
}

std::shared_ptr<CompressedData> MakeCompressedData(std::uint32_t length) {
  auto record = MakeRecord<CompressedData>(length);
  record->length = length;
  return record;
}

std::uint8_t* Entries(DatasetStartv2& record) {
  return reinterpret_cast<std::uint8_t*>(&record) + sizeof(record);
}

const std::uint8_t* Entries(const DatasetStartv2& record) {
  return reinterpret_cast<const std::uint8_t*>(&record) + sizeof(record);
}

std::uint8_t* Body(CompressedData& record) {
  return reinterpret_cast<std::uint8_t*>(&record) + sizeof(record);
}

const std::uint8_t* Body(const CompressedData& record) {
  return reinterpret_cast<const std::uint8_t*>(&record) + sizeof(record);
}

}  // namespace OM_DP
