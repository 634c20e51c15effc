#include "tests/enterprise/common/por/allocation_count.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {
thread_local unsigned long long allocations = 0;
thread_local bool fails = false;
}  // namespace

unsigned long long GetAllocationCount() noexcept {
  return allocations;
}

void FailNextAllocation() noexcept {
  fails = true;
}

void* operator new(std::size_t size) {
  ++allocations;
  if (std::exchange(fails, false)) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
