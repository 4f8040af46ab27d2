// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SUPPORT_FAILING_NEW_H_
#define PENSTOCK_TESTS_SUPPORT_FAILING_NEW_H_

#include <cstddef>
#include <cstdlib>
#include <new>

// Replaces the global operator new of a test program, the shared libraries included, by one that
// runs out of memory on demand. Include it in exactly one source file of a program.
//
//   {
//     const FailingNew failing(2);  // two more allocations work on this thread
//     ...
//   }

class FailingNew {
 public:
  explicit FailingNew(long allocationsLeft) { s_left = allocationsLeft; }
  ~FailingNew() { s_left = kUnlimited; }
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;

  static bool Permits() {
    if (s_left == kUnlimited) return true;
    if (s_left == 0) return false;
    --s_left;
    return true;
  }

 private:
  static constexpr long kUnlimited = -1;
  static inline thread_local long s_left = kUnlimited;
};

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = FailingNew::Permits() ? std::malloc(size == 0 ? 1 : size) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void* operator new[](std::size_t size) { return operator new(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

#endif  // PENSTOCK_TESTS_SUPPORT_FAILING_NEW_H_
