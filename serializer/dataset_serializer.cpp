// SPDX-License-Identifier: Apache-2.0
#include "penstock/dataset_serializer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iomanip>
#include <locale>
#include <sstream>

#include "common/log.h"
#include "penstock/host/file_system.h"

namespace {

// What the records say of their own size, read from their bytes: the rest of them is the host's.
constexpr std::size_t kStartFixedSize = 44;
constexpr std::size_t kStartEntrySize = 16;
constexpr std::size_t kStartCountOffset = 40;
constexpr std::size_t kUnitFixedSize = 20;
constexpr std::size_t kUnitLengthOffset = 16;
constexpr std::size_t kHeaderSize = 24;
constexpr DPPCmdHeaderFlags kHeaderFlags{2, 3, 0, 0, 0};

template <class Field>
Field ReadField(const std::uint8_t* record, std::size_t offset) {
  Field field;
  std::memcpy(&field, record + offset, sizeof(field));
  return field;
}

std::string FileName(std::uint64_t n) {
  std::ostringstream name;
  name.imbue(std::locale::classic());  // a name must not depend on the process's locale
  name << std::hex << std::setw(16) << std::setfill('0') << n << ".ds";
  return name.str();
}

}  // namespace

std::string DatasetBasePath(const std::string& base, const UUID& volume, unsigned long n) {
  std::ostringstream path;
  path.imbue(std::locale::classic());
  path << base << "/" << volume << "/" << std::hex << std::setfill('0') << std::setw(8)
       << (n >> 32U) << "/" << std::setw(5) << ((n & 0xffffffffU) >> 12U) << "/";
  return path.str();
}

DatasetSerializer::DatasetSerializer(std::uint64_t n, UuidT volume, const std::string& base)
    : m_dirPath(DatasetBasePath(base, UUID::MakeUUID(volume), n)) {
  m_filePath = m_dirPath + FileName(n);
}

DatasetSerializer::~DatasetSerializer() {
  if (IsOpen()) ::close(m_fd);
}

bool DatasetSerializer::IsOpen() const { return m_fd >= 0; }

int DatasetSerializer::WriteDppHeader(std::uint64_t payloadSize, DPPCmdType type) {
  const std::shared_ptr<DPPCmdHeader> header =
      CreateDppHeader(static_cast<unsigned>(payloadSize), type, kHeaderFlags);
  PENSTOCK_LOG(LOG_INFO, "Writing header " << type << " payload size: " << payloadSize);
  const ssize_t written = ::write(m_fd, header.get(), kHeaderSize);
  if (written < static_cast<ssize_t>(kHeaderSize)) {
    PENSTOCK_LOG(LOG_ERROR, "Unable to write header");
  }
  return static_cast<int>(written);
}

int DatasetSerializer::WriteHeader(std::uint64_t n, std::shared_ptr<OM_DP::DatasetStartv2> header) {
  if (IsOpen()) {
    PENSTOCK_LOG(LOG_ERROR, "DSS: " << Address(this) << " File is already open  "
                                    << " DS N: " << n);
    return -1;
  }
  if (!FileSystem::CreateDirPath(m_dirPath)) {
    PENSTOCK_LOG(LOG_ERROR, "DSS: Unable to create dataset folder " << m_dirPath);
    return -1;
  }
  m_fd = ::open(m_filePath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_APPEND, 0644);
  if (m_fd < 0) {
    const int error = errno;
    if (error == EEXIST) {
      PENSTOCK_LOG(LOG_ERROR, "DSS: Dataset file for DS N: " << n << " already exists at path: "
                                                             << m_filePath);
    } else {
      PENSTOCK_LOG(LOG_ERROR, "DSS: Failed to open dataset file" << m_filePath << " for DS N: " << n
                                                                 << " errno:  " << error);
    }
    return -1;
  }
  const auto* record = reinterpret_cast<const std::uint8_t*>(header.get());
  const std::size_t entriesSize =
      kStartEntrySize * ReadField<std::uint16_t>(record, kStartCountOffset);
  const int headerWritten =
      WriteDppHeader(kStartFixedSize + entriesSize, DPPCmdType::DatasetStartv2);
  if (headerWritten < 1) return headerWritten;
  [[maybe_unused]] const ssize_t fixed = ::write(m_fd, record, kStartFixedSize);
  const ssize_t entries = ::write(m_fd, record + kStartFixedSize, entriesSize);
  if (entries != static_cast<ssize_t>(entriesSize)) {
    PENSTOCK_LOG(LOG_ERROR, "DSS: Failed writing to dataset file: " << entriesSize << "  "
                                                                    << entries << " DS N: " << n);
    return -1;
  }
  PENSTOCK_LOG(LOG_INFO, "DSS: Dataset file for DS N: " << n << " appended bytes [header,body]: "
                                                        << kStartFixedSize << "," << entries);
  return static_cast<int>(kStartFixedSize) + static_cast<int>(entries);
}

std::pair<int, unsigned long> DatasetSerializer::WriteData(
    std::uint64_t n, std::shared_ptr<OM_DP::CompressedData> data) {
  if (!IsOpen()) return {-1, 0};
  const auto* record = reinterpret_cast<const std::uint8_t*>(data.get());
  const auto length = ReadField<std::uint32_t>(record, kUnitLengthOffset);
  const auto payloadSize =
      static_cast<std::int32_t>(length + static_cast<std::uint32_t>(kUnitFixedSize));
  const int headerWritten =
      WriteDppHeader(static_cast<std::uint64_t>(payloadSize), DPPCmdType::CompressedData);
  if (headerWritten < 1) return {headerWritten, 0};
  const off64_t position = ::lseek64(m_fd, 0, SEEK_CUR);
  const ssize_t fixed = ::write(m_fd, record, kUnitFixedSize);
  const ssize_t body = ::write(m_fd, record + kUnitFixedSize, length);
  if (body != static_cast<ssize_t>(length)) {
    PENSTOCK_LOG(LOG_ERROR, "DSS: Failed writing to dataset file: " << length << "  " << body
                                                                    << " DS N: " << n);
    return {-1, 0};
  }
  PENSTOCK_LOG(LOG_INFO, "DSS: Dataset file for DS N: " << n << " appended bytes [header,body]: "
                                                        << fixed << "," << body);
  return {static_cast<int>(fixed + body), static_cast<unsigned long>(position)};
}

int DatasetSerializer::CloseDatasetFile(std::uint64_t n, bool deleteFile) {
  if (!IsOpen()) {
    const int error = errno;
    PENSTOCK_LOG(LOG_NOTICE,
                 "DSS: Dataset file was not open for DS N: " << n << " errno:  " << error);
    return 0;
  }
  if (::fsync(m_fd) == -1) {
    const int error = errno;
    PENSTOCK_LOG(LOG_ERROR,
                 "DSS: fsync() failed for dataset file DS N: " << n << " errno:  " << error);
    return -1;
  }
  ::close(m_fd);
  m_fd = -1;
  PENSTOCK_LOG(LOG_INFO, "DSS: Dataset file is closed successfully for DS N: " << n);
  if (!deleteFile) return 0;
  PENSTOCK_LOG(LOG_NOTICE, "DSS: N: " << n << " closing and deleting datatset file " << m_filePath);
  return ::unlink(m_filePath.c_str());
}
