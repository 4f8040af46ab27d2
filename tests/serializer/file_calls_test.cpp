// SPDX-License-Identifier: Apache-2.0
// The functions that stand between the library and the C library, and their own tests. Method: the
// definitions below come before the C library's for every caller that asks the dynamic linker, and
// reach the real ones through RTLD_NEXT.
#include "tests/serializer/file_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "gtest/gtest.h"
#include "tests/serializer/serializer_fixture.h"

namespace {

// One call to spoil.
struct Fault {
  std::string function;
  int callsUntil;  // 1: the next one
  long result;
  int error;
  bool isCut;  // write `result` bytes instead of failing
};

struct Session {
  std::vector<std::string> lines;
  std::vector<Fault> faults;
  bool swallowsWrites = false;
  int file = -1;
};

Session* g_session = nullptr;
bool g_spoilsErrno = false;

template <class Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string Descriptor(int fd) { return fd == g_session->file ? "file" : std::to_string(fd); }

// Lists the call, and returns the fault that it meets, if any.
const Fault* Listed(const std::string& function, const std::string& line) {
  static Fault due;
  g_session->lines.push_back(line);
  const Fault* met = nullptr;
  for (Fault& fault : g_session->faults) {
    if (fault.function == function && --fault.callsUntil == 0) {
      due = fault;
      met = &due;
    }
  }
  return met;
}

long Spoiled(const Fault& fault) {
  errno = fault.error;
  return fault.result;
}

}  // namespace

FileCalls::FileCalls() { g_session = new Session; }
FileCalls::~FileCalls() { delete std::exchange(g_session, nullptr); }

std::vector<std::string> FileCalls::Take() { return std::exchange(g_session->lines, {}); }

void FileCalls::Fail(const std::string& function, int nth, long result, int error) {
  g_session->faults.push_back({function, nth, result, error, false});
}

void FileCalls::CutWrite(int nth, std::size_t bytes) {
  g_session->faults.push_back({"write", nth, static_cast<long>(bytes), 0, true});
}

void FileCalls::SwallowWrites() { g_session->swallowsWrites = true; }

ErrnoSpoiler::ErrnoSpoiler() { g_spoilsErrno = true; }
ErrnoSpoiler::~ErrnoSpoiler() { g_spoilsErrno = false; }

// This program's own message prefix, in place of the host library's.
std::string GetMsgPrefix() {
  if (g_spoilsErrno) errno = 4095;
  return {};
}

extern "C" {

int open(const char* path, int flags, ...) {
  static auto* const real = Real<int(const char*, int, ...)>("open");
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    std::va_list args;
    va_start(args, flags);
    mode = va_arg(args, mode_t);
    va_end(args);
  }
  if (g_session == nullptr) return real(path, flags, mode);
  char numbers[32];
  std::snprintf(numbers, sizeof numbers, " 0%o 0%o", static_cast<unsigned>(flags), mode);
  const Fault* fault = Listed("open", std::string("open ") + path + numbers);
  if (fault != nullptr) return static_cast<int>(Spoiled(*fault));
  g_session->file = real(path, flags, mode);
  return g_session->file;
}

ssize_t write(int fd, const void* bytes, std::size_t count) {
  static auto* const real = Real<ssize_t(int, const void*, std::size_t)>("write");
  if (g_session == nullptr) return real(fd, bytes, count);
  const Fault* fault = Listed("write", "write " + Descriptor(fd) + " " + std::to_string(count));
  if (fault != nullptr && !fault->isCut) return Spoiled(*fault);
  if (fault != nullptr) return real(fd, bytes, static_cast<std::size_t>(fault->result));
  if (g_session->swallowsWrites) return static_cast<ssize_t>(count);
  return real(fd, bytes, count);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
  static auto* const real = Real<off64_t(int, off64_t, int)>("lseek64");
  if (g_session == nullptr) return real(fd, offset, whence);
  const Fault* fault = Listed("lseek64", "lseek " + Descriptor(fd) + " " + std::to_string(offset) +
                                             (whence == SEEK_CUR ? " SEEK_CUR" : " other"));
  return fault != nullptr ? Spoiled(*fault) : real(fd, offset, whence);
}

int fsync(int fd) {
  static auto* const real = Real<int(int)>("fsync");
  if (g_session == nullptr) return real(fd);
  const Fault* fault = Listed("fsync", "fsync " + Descriptor(fd));
  return fault != nullptr ? static_cast<int>(Spoiled(*fault)) : real(fd);
}

int close(int fd) {
  static auto* const real = Real<int(int)>("close");
  if (g_session == nullptr) return real(fd);
  const Fault* fault = Listed("close", "close " + Descriptor(fd));
  const int closed = real(fd);
  return fault != nullptr ? static_cast<int>(Spoiled(*fault)) : closed;
}

int unlink(const char* path) noexcept {
  static auto* const real = Real<int(const char*)>("unlink");
  if (g_session == nullptr) return real(path);
  const Fault* fault = Listed("unlink", std::string("unlink ") + path);
  return fault != nullptr ? static_cast<int>(Spoiled(*fault)) : real(path);
}

}  // extern "C"

namespace {

class FileCallsTest : public SerializerTest {};

TEST_F(FileCallsTest, SeeEveryCallOfTheLibraryInOrder) {
  DatasetSerializer file = File(1);
  FileCalls calls;
  file.WriteHeader(1, Start(0));
  file.WriteData(1, Data(3));
  file.CloseDatasetFile(1, true);
  EXPECT_EQ(calls.Take(),
            (Lines{"open " + file.m_filePath + " 03301 0644", "write file 24", "write file 44",
                   "write file 0", "write file 24", "lseek file 0 SEEK_CUR", "write file 20",
                   "write file 3", "fsync file", "close file", "unlink " + file.m_filePath}));
  EXPECT_EQ(calls.Take(), Lines{});
}

TEST_F(FileCallsTest, SpoilTheCallTheyAreToldToAndNoOther) {
  FileCalls calls;
  calls.Fail("fsync", 2, -1, EIO);
  calls.CutWrite(1, 2);
  const int fd = ::open((m_base + "/x").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(::write(fd, "abc", 3), 2);
  EXPECT_EQ(::write(fd, "abc", 3), 3);
  EXPECT_EQ(::fsync(fd), 0);
  errno = 0;
  EXPECT_EQ(::fsync(fd), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(::fsync(fd), 0);
  calls.SwallowWrites();
  const ByteString unread(1000);
  EXPECT_EQ(::write(fd, unread.data(), unread.size()), 1000);
  EXPECT_EQ(::lseek64(fd, 0, SEEK_CUR), 5);
  EXPECT_EQ(::close(fd), 0);
  EXPECT_EQ(Bytes(m_base + "/x"), (ByteString{'a', 'b', 'a', 'b', 'c'}));
}

TEST_F(FileCallsTest, PassOnWhenNobodyListens) {
  const int fd = ::open((m_base + "/x").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(::write(fd, "abc", 3), 3);
  EXPECT_EQ(::lseek64(fd, 0, SEEK_CUR), 3);
  EXPECT_EQ(::fsync(fd), 0);
  EXPECT_EQ(::close(fd), 0);
  EXPECT_EQ(::unlink((m_base + "/x").c_str()), 0);
}

TEST_F(FileCallsTest, ASpoiltErrnoReachesTheLibrary) {
  const ErrnoSpoiler spoiler;
  errno = 0;
  DatasetSerializer file = File(1);
  file.CloseDatasetFile(1, false);
  EXPECT_EQ(errno, 4095);
}

}  // namespace
