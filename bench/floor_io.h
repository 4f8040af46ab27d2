// SPDX-License-Identifier: Apache-2.0
// What the hand-written floors of bench/replicate.py share: plain blocking sockets and files. An
// error ends the program with one line, because a floor that goes on after one measures nothing.
#ifndef PENSTOCK_BENCH_FLOOR_IO_H_
#define PENSTOCK_BENCH_FLOOR_IO_H_

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace floors {

// Ends the program with 3, `what` and the system's last error.
[[noreturn]] void Fail(const std::string& what);
// Ends the program with 3 and `what`.
[[noreturn]] void FailPlainly(const std::string& what);

int OpenToRead(const std::string& path);
int OpenToWrite(const std::string& path, int flags);
std::uint64_t SizeOf(int fd);
void ReadAt(int fd, std::uint64_t offset, std::span<std::uint8_t> out);
void WriteAt(int fd, std::uint64_t offset, std::span<const std::uint8_t> data);
void Sync(int fd);
// Where the next data of the file lies at or behind `offset`; its end if there is none.
std::uint64_t NextData(int fd, std::uint64_t offset, std::uint64_t size);

// Listens on 127.0.0.1, on a port of the system's choice. `address` gets HOST:PORT.
int Listen(std::string& address);
// Prints the line that says where, as penstock's target does.
void SayListening(const std::string& address);
// Both set the congestion control that PENSTOCK_TCP_CONGESTION names, as penstock does.
int Accept(int listener);
int Connect(const std::string& address);

void Send(int fd, std::span<iovec> pieces);
// Whether all of `out` came: false when the stream ended before its first byte.
bool Receive(int fd, std::span<std::uint8_t> out);

template <class T>
std::span<std::uint8_t> BytesOf(T& value) {
  return {reinterpret_cast<std::uint8_t*>(&value), sizeof(T)};
}
inline iovec Piece(std::span<std::uint8_t> data) { return {data.data(), data.size()}; }

}  // namespace floors

#endif  // PENSTOCK_BENCH_FLOOR_IO_H_
