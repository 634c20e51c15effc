#include "tests/support/allocation_watch.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace TestSupport {
namespace {

struct State {
  unsigned long long count;
  unsigned long long failure_count;
  unsigned long long successes_left;
  unsigned long long failures_left;
  long long live_count;
};
// Without a constructor: also allocations before main and at a thread's end come here.
thread_local constinit State state{0, 0, 0, 0, 0};

void* Allocate(std::size_t size) noexcept {
  ++state.count;
  if (state.successes_left != 0) {
    --state.successes_left;
  } else if (state.failures_left != 0) {
    --state.failures_left;
    ++state.failure_count;
    return nullptr;
  }
  ++state.live_count;
  return std::malloc(size != 0 ? size : 1);
}

void Free(void* block) noexcept {
  if (block != nullptr) --state.live_count;
  std::free(block);
}

void* AllocateOrThrow(std::size_t size) {
  void* const block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

AllocationWatch::AllocationWatch(unsigned long long successes,
                                 unsigned long long failures) noexcept {
  state = {0, 0, successes, failures, 0};
}

AllocationWatch::~AllocationWatch() {
  state = {0, 0, 0, 0, 0};
}

unsigned long long AllocationWatch::GetCount() const noexcept {
  return state.count;
}

unsigned long long AllocationWatch::GetFailureCount() const noexcept {
  return state.failure_count;
}

long long AllocationWatch::GetLiveCount() const noexcept {
  return state.live_count;
}

}  // namespace TestSupport

void* operator new(std::size_t size) {
  return TestSupport::AllocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return TestSupport::AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return TestSupport::Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return TestSupport::Allocate(size);
}
void operator delete(void* block) noexcept {
  TestSupport::Free(block);
}
void operator delete[](void* block) noexcept {
  TestSupport::Free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  TestSupport::Free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  TestSupport::Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  TestSupport::Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  TestSupport::Free(block);
}
