// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_HOST_COMMANDS_H_
#define PENSTOCK_HOST_COMMANDS_H_

#include <array>
#include <cstdint>
#include <iosfwd>
#include <memory>

#include "penstock/export.h"

// The records of dataset files and of the wire, exactly as their bytes lie: little-endian, no
// padding. docs/format.md gives every field and a worked example.

// The type of the record that follows a command header.
enum class DPPCmdType : std::uint32_t {
  DatasetStartv2 = 56,
  CompressedData = 100,
};

// Writes the type's name, or "DPPCmdType(<number>)" for a value without one.
//
// Threads: any.
PENSTOCK_HOST_EXPORT std::ostream& operator<<(std::ostream& out, DPPCmdType type);

// The flags of a command header: two words and three bytes.
struct DPPCmdHeaderFlags {
  std::uint32_t a, b;
  std::uint8_t c, d, e;
};

// The 24 bytes in front of every record.
struct DPPCmdHeader {
  std::uint32_t payloadSize = 0;  // @0: bytes that follow the header
  std::uint32_t type = 0;         // @4: a DPPCmdType
  std::uint32_t a = 0;            // @8: flags
  std::uint32_t b = 0;            // @12
  std::uint8_t c = 0;             // @16
  std::uint8_t d = 0;             // @17
  std::uint8_t e = 0;             // @18
  std::uint8_t zero = 0;          // @19
  std::uint32_t crc = 0;          // @20: CRC-32C (Castagnoli) of bytes 0 to 19
};
static_assert(sizeof(DPPCmdHeader) == 24);

// Returns a new header with its checksum filled in.
//
// Threads: any.
PENSTOCK_HOST_EXPORT std::shared_ptr<DPPCmdHeader> CreateDppHeader(unsigned payloadSize,
                                                                   DPPCmdType type,
                                                                   DPPCmdHeaderFlags flags);

namespace OM_DP {

// The record that opens a dataset: these 44 bytes, then `count` volume identifiers of 16 bytes.
struct [[gnu::packed]] DatasetStartv2 {
  std::uint64_t n = 0;                     // @0: the dataset's number
  std::uint64_t timestampMs = 0;           // @8: milliseconds since the epoch
  std::array<std::uint8_t, 16> groupId{};  // @16
  std::uint32_t datasetType = 0;           // @32: Dataset::GetDsType()
  std::uint32_t flags = 0;                 // @36
  std::uint16_t count = 0;                 // @40: entries that follow
  std::uint16_t formatVersion = 0;         // @42
};
static_assert(sizeof(DatasetStartv2) == 44);

// The record of one compressed unit: these 20 bytes, then `length` bytes of body.
struct [[gnu::packed]] CompressedData {
  std::uint64_t bodyHash = 0;     // @0: xxh3-64 of the body
  std::uint32_t rawLength = 0;    // @8: bytes of volume data before compression
  std::uint8_t volumeIndex = 0;   // @12: index into the entries of the dataset's first record
  std::uint8_t codec = 0;         // @13
  std::uint16_t extentCount = 0;  // @14
  std::uint32_t length = 0;       // @16: bytes of the body
};
static_assert(sizeof(CompressedData) == 20);

// Returns a record with room for `count` entries, in one contiguous block of 44 + 16 x count bytes.
// `count` is set; every other byte is 0.
//
// Threads: any.
PENSTOCK_HOST_EXPORT std::shared_ptr<DatasetStartv2> MakeDatasetStartv2(std::uint16_t count);

// Returns a record with room for `length` bytes of body, in one contiguous block of 20 + length
// bytes. `length` is set; every other byte is 0.
//
// Threads: any.
PENSTOCK_HOST_EXPORT std::shared_ptr<CompressedData> MakeCompressedData(std::uint32_t length);

// Returns the address of the entries, 44 bytes after the record's own.
PENSTOCK_HOST_EXPORT std::uint8_t* Entries(DatasetStartv2& record);
PENSTOCK_HOST_EXPORT const std::uint8_t* Entries(const DatasetStartv2& record);

// Returns the address of the body, 20 bytes after the record's own.
PENSTOCK_HOST_EXPORT std::uint8_t* Body(CompressedData& record);
PENSTOCK_HOST_EXPORT const std::uint8_t* Body(const CompressedData& record);

}  // namespace OM_DP

#endif  // PENSTOCK_HOST_COMMANDS_H_
