// Replaces the global operator new for the whole test program (the libraries' calls
// included) to count this thread's allocations and the largest one. Include it in
// exactly one source file of a test program.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace eyetest {

struct AllocationStats {
  long count = 0;
  std::size_t largest = 0;
};

inline AllocationStats& threadAllocations() {
  static thread_local AllocationStats stats;
  return stats;
}

}  // namespace eyetest

void* operator new(std::size_t size) {
  auto& stats = eyetest::threadAllocations();
  ++stats.count;
  if (size > stats.largest) stats.largest = size;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
