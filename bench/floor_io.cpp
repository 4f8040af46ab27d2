// SPDX-License-Identifier: Apache-2.0
#include "bench/floor_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace floors {

namespace {

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

sockaddr* Generic(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

void Tune(int fd) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  const char* name = std::getenv("PENSTOCK_TCP_CONGESTION");
  if (name == nullptr || *name == '\0') return;
  const auto length = static_cast<socklen_t>(std::strlen(name));
  if (::setsockopt(fd, IPPROTO_TCP, TCP_CONGESTION, name, length) != 0) {
    Fail(std::string("can't use the congestion control ") + name);
  }
}

off_t Offset(std::uint64_t value) { return static_cast<off_t>(value); }

}  // namespace

void Fail(const std::string& what) { FailPlainly(what + ": " + std::strerror(errno)); }

void FailPlainly(const std::string& what) {
  std::fprintf(stderr, "floor: %s\n", what.c_str());
  std::_Exit(3);  // other threads may be at work
}

int OpenToRead(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail("can't open " + path);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return fd;
}

int OpenToWrite(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | flags, 0600);
  if (fd < 0) Fail("can't open " + path);
  return fd;
}

std::uint64_t SizeOf(int fd) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) Fail("can't look at a file");
  return static_cast<std::uint64_t>(info.st_size);
}

void ReadAt(int fd, std::uint64_t offset, std::span<std::uint8_t> out) {
  while (!out.empty()) {
    const ssize_t count = ::pread(fd, out.data(), out.size(), Offset(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Fail("can't read");
    if (count == 0) FailPlainly("a file has become shorter");
    offset += static_cast<std::uint64_t>(count);
    out = out.subspan(static_cast<std::size_t>(count));
  }
}

void WriteAt(int fd, std::uint64_t offset, std::span<const std::uint8_t> data) {
  while (!data.empty()) {
    const ssize_t count = ::pwrite(fd, data.data(), data.size(), Offset(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) Fail("can't write");
    offset += static_cast<std::uint64_t>(count);
    data = data.subspan(static_cast<std::size_t>(count));
  }
}

void Sync(int fd) {
  if (::fsync(fd) != 0) Fail("can't sync");
}

std::uint64_t NextData(int fd, std::uint64_t offset, std::uint64_t size) {
  const off_t data = ::lseek(fd, Offset(offset), SEEK_DATA);
  if (data >= 0) return static_cast<std::uint64_t>(data);
  if (errno == ENXIO) return size;
  return offset;  // a file system that does not tell
}

int Listen(std::string& address) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local = Loopback(0);
  socklen_t size = sizeof(local);
  if (fd < 0 || ::bind(fd, Generic(local), size) != 0 || ::listen(fd, 64) != 0 ||
      ::getsockname(fd, Generic(local), &size) != 0) {
    Fail("can't listen");
  }
  address = "127.0.0.1:" + std::to_string(ntohs(local.sin_port));
  return fd;
}

void SayListening(const std::string& address) {
  std::printf("listening on %s\n", address.c_str());
  std::fflush(stdout);
}

int Accept(int listener) {
  int fd = -1;
  do {
    fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
  if (fd < 0) Fail("can't accept");
  Tune(fd);
  return fd;
}

int Connect(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  if (colon == std::string::npos) FailPlainly(address + " is not 127.0.0.1:PORT");
  const auto port = std::strtoul(address.c_str() + colon + 1, nullptr, 10);
  sockaddr_in remote = Loopback(static_cast<std::uint16_t>(port));
  if (::inet_pton(AF_INET, address.substr(0, colon).c_str(), &remote.sin_addr) != 1) {
    FailPlainly(address + " is not 127.0.0.1:PORT");
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Fail("can't make a socket");
  Tune(fd);
  if (::connect(fd, Generic(remote), sizeof(remote)) != 0) Fail("can't connect to " + address);
  return fd;
}

void Send(int fd, std::span<iovec> pieces) {
  while (!pieces.empty()) {
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    const ssize_t count = ::sendmsg(fd, &message, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Fail("can't send");
    auto sent = static_cast<std::size_t>(count);
    while (!pieces.empty() && sent >= pieces.front().iov_len) {
      sent -= pieces.front().iov_len;
      pieces = pieces.subspan(1);
    }
    if (pieces.empty()) break;
    auto& first = pieces.front();
    first = {static_cast<std::uint8_t*>(first.iov_base) + sent, first.iov_len - sent};
  }
}

bool Receive(int fd, std::span<std::uint8_t> out) {
  bool isFirst = true;
  while (!out.empty()) {
    const ssize_t count = ::recv(fd, out.data(), out.size(), MSG_WAITALL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Fail("can't receive");
    if (count == 0 && isFirst) return false;
    if (count == 0) FailPlainly("the stream ended early");
    isFirst = false;
    out = out.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace floors
