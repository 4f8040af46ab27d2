// SPDX-License-Identifier: Apache-2.0
// Drives one dataset file by a string of operations, and compares the file with the bytes that must
// be in it.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/byte_source.h"

namespace {

const std::string& Folder() {
  static const std::string folder =
      (std::filesystem::temp_directory_path() / ("penstock-fuzz-" + std::to_string(::getpid())))
          .string();
  return folder;
}

class SerializerRun {
 public:
  explicit SerializerRun(ByteSource& in) : m_in(in), m_n(in.Byte()), m_file(m_n, {}, Folder()) {}
  ~SerializerRun() {
    if (m_file.IsOpen()) m_file.CloseDatasetFile(m_n, true);
    std::filesystem::remove_all(Folder());
  }
  SerializerRun(const SerializerRun&) = delete;
  SerializerRun& operator=(const SerializerRun&) = delete;

  void Run() {
    constexpr int kMaxOperations = 40;
    for (int i = 0; i < kMaxOperations && !m_in.AtEnd(); ++i) {
      switch (m_in.Below(8)) {
        case 0:
        case 1: Start(); break;
        case 2: Close(); break;
        default: Unit(); break;
      }
      FUZZ_CHECK(m_file.IsOpen() == m_isOpen);
    }
    Compare();
  }

 private:
  void Start() {
    const auto record = OM_DP::MakeDatasetStartv2(m_in.Byte());
    std::memset(OM_DP::Entries(*record), m_in.Byte(), std::size_t{16} * record->count);
    const int size = 44 + 16 * record->count;
    const int result = m_file.WriteHeader(m_n, record);
    if (m_isOpen || m_exists) {
      FUZZ_CHECK(result == -1);
      return;
    }
    FUZZ_CHECK(result == size);
    m_isOpen = true;
    m_exists = true;
    Expect(static_cast<unsigned>(size), DPPCmdType::DatasetStartv2, record.get());
  }

  void Unit() {
    const auto record = OM_DP::MakeCompressedData(m_in.Byte() * 16U + m_in.Below(3));
    std::memset(OM_DP::Body(*record), m_in.Byte(), record->length);
    const auto [result, position] = m_file.WriteData(m_n, record);
    if (!m_isOpen) {
      FUZZ_CHECK(result == -1 && position == 0);
      return;
    }
    const unsigned size = 20 + record->length;
    FUZZ_CHECK(result == static_cast<int>(size) && position == m_expected.size() + 24);
    Expect(size, DPPCmdType::CompressedData, record.get());
  }

  void Close() {
    const bool erase = m_in.Flag();
    if (m_isOpen) Compare();
    FUZZ_CHECK(m_file.CloseDatasetFile(m_n, erase) == 0);
    if (m_isOpen && erase) {
      m_exists = false;
      m_expected.clear();
    }
    m_isOpen = false;
    FUZZ_CHECK(std::filesystem::exists(m_file.m_filePath) == m_exists);
  }

  void Expect(unsigned size, DPPCmdType type, const void* record) {
    const auto header = CreateDppHeader(size, type, {2, 3, 0, 0, 0});
    m_expected.append(reinterpret_cast<const char*>(header.get()), 24);
    m_expected.append(static_cast<const char*>(record), size);
  }

  void Compare() const {
    std::ifstream file(m_file.m_filePath, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    FUZZ_CHECK(bytes == m_expected);
  }

  ByteSource& m_in;
  std::uint64_t m_n;
  DatasetSerializer m_file;
  bool m_isOpen = false;
  bool m_exists = false;
  std::string m_expected;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ByteSource in(data, size);
  SerializerRun(in).Run();
  return 0;
}
