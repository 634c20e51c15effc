#include "tests/enterprise/common/por/allocation_count.h"

#include <cstdlib>
#include <new>

namespace {
thread_local unsigned long long allocations = 0;
}  // namespace

unsigned long long GetAllocationCount() noexcept {
  return allocations;
}

void* operator new(std::size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
