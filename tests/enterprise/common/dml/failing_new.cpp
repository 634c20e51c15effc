#include "tests/enterprise/common/dml/failing_new.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int failures_left = 0;
thread_local int failures = 0;

}  // namespace

void FailNextAllocations(int count) noexcept {
  failures_left = count;
  failures = 0;
}

int GetFailedAllocations() noexcept {
  return failures;
}

void* operator new(std::size_t size) {
  if (failures_left > 0) {
    --failures_left;
    ++failures;
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
