// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SERIALIZER_FILE_CALLS_H_
#define PENSTOCK_TESTS_SERIALIZER_FILE_CALLS_H_

#include <cstddef>
#include <string>
#include <vector>

// Stands between the library and the C library while it lives: lists each call of open, write,
// lseek64, fsync, close and unlink, and spoils the ones it is told to. This test program defines
// the six functions, so the dynamic linker hands the library's calls to them; without a FileCalls
// they only pass on.
//
// A call is held as one line: "open <path> <flags, octal> <mode, octal>", "write <descriptor>
// <bytes>", "lseek <descriptor> <offset> <whence>", "fsync <descriptor>", "close <descriptor>",
// "unlink <path>". The descriptor that the last open returned is written as "file".
//
// Threads: the test's own only; one FileCalls at a time.
class FileCalls {
 public:
  FileCalls();
  ~FileCalls();
  FileCalls(const FileCalls&) = delete;
  FileCalls& operator=(const FileCalls&) = delete;

  // Returns the lines since the last call, and forgets them.
  std::vector<std::string> Take();

  // Does not make the `nth` call from now on (1: the next) of `function`: it returns `result` with
  // errno `error`. Only a close is made all the same, so that no descriptor is lost.
  void Fail(const std::string& function, int nth, long result, int error);
  // Lets the `nth` write from now on write only `bytes` bytes.
  void CutWrite(int nth, std::size_t bytes);
  // Lets every write from now on report that all was written, without reading a byte.
  void SwallowWrites();
};

// Lets GetMsgPrefix, which every log record of the library asks for, spoil errno while it lives.
class ErrnoSpoiler {
 public:
  ErrnoSpoiler();
  ~ErrnoSpoiler();
  ErrnoSpoiler(const ErrnoSpoiler&) = delete;
  ErrnoSpoiler& operator=(const ErrnoSpoiler&) = delete;
};

#endif  // PENSTOCK_TESTS_SERIALIZER_FILE_CALLS_H_
