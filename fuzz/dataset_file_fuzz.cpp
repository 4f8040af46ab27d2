// SPDX-License-Identifier: Apache-2.0
// Dataset files from bad disks and strangers: bytes as they are, or whole files that were changed,
// with the sums put right or not. What the reader calls whole must be, byte for byte, what a writer
// makes of the records that the reader gave.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "codec/dataset_file.h"
#include "fuzz/byte_source.h"

namespace {

using penstock::BlockPtr;
using penstock::Bytes;
using ByteString = std::vector<std::uint8_t>;

constexpr std::size_t kCommandBytes = 24;

class MemoryFile : public penstock::FileBytes {
 public:
  explicit MemoryFile(const ByteString& bytes) : m_bytes(bytes) {}
  std::uint64_t Size() const override { return m_bytes.size(); }
  bool Read(std::uint64_t offset, std::uint8_t* out, std::size_t size) override {
    FUZZ_CHECK(offset <= m_bytes.size() && size <= m_bytes.size() - offset);
    if (size > 0) std::memcpy(out, m_bytes.data() + offset, size);
    return true;
  }

 private:
  const ByteString& m_bytes;
};

void Append(ByteString& file, DPPCmdType type, Bytes record) {
  const auto command = penstock::FileCommand(static_cast<std::uint32_t>(record.size()), type);
  file.insert(file.end(), command.begin(), command.end());
  file.insert(file.end(), record.begin(), record.end());
}

Bytes RecordOf(const OM_DP::DatasetStartv2& start) {
  return {reinterpret_cast<const std::uint8_t*>(&start), 44 + std::size_t{16} * start.count};
}

// Reads a file and checks what was said of it against what was given from it.
void ReadAndCheck(const ByteString& bytes) {
  MemoryFile file(bytes);
  int starts = 0;
  std::vector<BlockPtr> blocks;
  std::uint64_t rawBytes = 0;
  std::size_t volumes = 0;
  penstock::DatasetFileVisitor visitor;
  visitor.start = [&](const penstock::DatasetFileStart& start) {
    ++starts;
    volumes = start.volumes.size();
  };
  visitor.block = [&](const BlockPtr& block, std::uint64_t offset) {
    const Bytes record = penstock::RecordBytes(*block);
    FUZZ_CHECK(starts == 1 && block->volumeIndex < volumes);
    FUZZ_CHECK(offset + record.size() <= bytes.size());
    FUZZ_CHECK(std::equal(record.begin(), record.end(),
                          bytes.begin() + static_cast<std::ptrdiff_t>(offset)));
    blocks.push_back(block);
    rawBytes += block->rawLength;
    return true;
  };
  penstock::DatasetFileTotals totals;
  const auto fault = penstock::ReadDatasetFile(file, visitor, &totals);
  FUZZ_CHECK(fault.offset <= bytes.size());
  FUZZ_CHECK(fault.text.empty() == totals.whole);
  FUZZ_CHECK(totals.blocks == blocks.size() && totals.rawBytes == rawBytes);
  if (!totals.whole) return;

  const std::size_t startBytes = 44 + 16 * volumes;
  FUZZ_CHECK(starts == 1 && bytes.size() >= kCommandBytes + startBytes);
  const Bytes start = Bytes(bytes).subspan(kCommandBytes, startBytes);
  penstock::DatasetFileSum sum;
  ByteString again;
  sum.AddStart(start);
  Append(again, DPPCmdType::DatasetStartv2, start);
  for (const BlockPtr& block : blocks) {
    sum.AddBlock(*block);
    Append(again, DPPCmdType::CompressedData, penstock::RecordBytes(*block));
  }
  FUZZ_CHECK(sum.Size() == again.size());
  Append(again, DPPCmdType::CompressedData, penstock::RecordBytes(*sum.MakeTrailer()));
  FUZZ_CHECK(again == bytes);
}

BlockPtr SomeBlock(ByteSource& in) {
  if (in.Flag()) {
    const penstock::Extent zeros[] = {{in.Offset(), 1U + in.Byte()}, {in.Byte(), 1}};
    return penstock::PackZeros(static_cast<std::uint8_t>(in.Below(3)), zeros);
  }
  ByteString data(1U + in.Byte());
  const std::uint8_t step = in.Byte();
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * step + 1);
  const penstock::Piece piece{std::uint64_t{in.Byte()} * 512, data};
  const auto codec = static_cast<penstock::Codec>(1 + in.Below(3));
  return penstock::PackBlock(static_cast<std::uint8_t>(in.Below(3)), {&piece, 1},
                             {codec, 1, false});
}

// A file as the writer makes it, and where its records begin. The volumes may be too few.
ByteString Written(ByteSource& in, std::vector<std::size_t>& records) {
  const auto start = OM_DP::MakeDatasetStartv2(static_cast<std::uint16_t>(in.Below(4)));
  start->n = in.Byte();
  penstock::DatasetFileSum sum;
  ByteString file;
  records.push_back(0);
  sum.AddStart(RecordOf(*start));
  Append(file, DPPCmdType::DatasetStartv2, RecordOf(*start));
  for (std::uint32_t i = in.Below(5); i > 0; --i) {
    const BlockPtr block = SomeBlock(in);
    records.push_back(file.size());
    sum.AddBlock(*block);
    Append(file, DPPCmdType::CompressedData, penstock::RecordBytes(*block));
  }
  records.push_back(file.size());
  Append(file, DPPCmdType::CompressedData, penstock::RecordBytes(*sum.MakeTrailer()));
  return file;
}

// One change: of a byte, of the length, or of whole records.
void Change(ByteSource& in, ByteString& file, const std::vector<std::size_t>& records) {
  if (file.empty()) return;
  const std::size_t at = (in.Byte() * 256U + in.Byte()) % file.size();
  const auto place = [&](std::size_t offset) {
    return file.begin() + static_cast<std::ptrdiff_t>(std::min(offset, file.size()));
  };
  const std::size_t from = records[in.Below(static_cast<std::uint32_t>(records.size()))];
  const auto next = std::upper_bound(records.begin(), records.end(), from);
  const ByteString record(place(from), next == records.end() ? file.end() : place(*next));
  switch (in.Below(6)) {
    case 0: file[at] = in.Byte(); break;
    case 1: file[at] ^= static_cast<std::uint8_t>(1U << in.Below(8)); break;
    case 2: file.resize(at); break;
    case 3: file.insert(place(at), in.Byte(), in.Byte()); break;
    case 4:
      file.insert(place(records[in.Below(static_cast<std::uint32_t>(records.size()))]),
                  record.begin(), record.end());
      break;
    default: file.erase(place(from), place(from + record.size())); break;
  }
}

template <class Field>
Field Get(const ByteString& bytes, std::size_t at) {
  Field field;
  std::memcpy(&field, bytes.data() + at, sizeof(field));
  return field;
}
template <class Field>
void Put(ByteString& bytes, std::size_t at, Field field) {
  std::memcpy(bytes.data() + at, &field, sizeof(field));
}

// Puts every sum right, record by record, as far as lengths lead.
void Repair(ByteString& file) {
  constexpr std::size_t kBlockBytes = sizeof(OM_DP::CompressedData);
  std::uint64_t blocks = 0;
  std::size_t at = 0;
  while (file.size() - at >= kCommandBytes) {
    const auto size = Get<std::uint32_t>(file, at);
    const auto type = static_cast<DPPCmdType>(Get<std::uint32_t>(file, at + 4));
    const auto command = penstock::FileCommand(size, type);
    std::copy(command.begin(), command.end(), file.begin() + static_cast<std::ptrdiff_t>(at));
    const std::size_t record = at + kCommandBytes;
    if (size > file.size() - record) return;
    if (type == DPPCmdType::CompressedData && size >= kBlockBytes) {
      const bool isTrailer = size == 36 && Get<std::uint16_t>(file, record + 14) == 0;
      if (isTrailer) {
        Put(file, record + 20, blocks);
        Put(file, record + 28, penstock::Hash64(Bytes(file).first(at)));
      }
      ++blocks;
      Put(file, record,
          penstock::Hash64(Bytes(file).subspan(record + kBlockBytes, size - kBlockBytes)));
    }
    at = record + size;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ByteSource in(data, size);
  const std::uint8_t choice = in.Byte();
  ByteString file;
  if (choice % 4 < 2) {
    if (size > 1) file.assign(data + 1, data + size);
  } else {
    std::vector<std::size_t> records;
    file = Written(in, records);
    ReadAndCheck(file);
    for (std::uint32_t i = in.Below(4); i > 0; --i) Change(in, file, records);
  }
  if (choice % 2 == 1) Repair(file);
  ReadAndCheck(file);
  return 0;
}
