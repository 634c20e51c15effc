#include "tests/core/common/failing_allocator.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bool is_watched = false;
thread_local bool has_failed = false;
thread_local std::size_t successes_left = 0;
thread_local std::size_t count = 0;

void* Allocate(std::size_t size) noexcept {
  if (is_watched) {
    ++count;
    if (successes_left == 0) {
      has_failed = true;
      return nullptr;
    }
    --successes_left;
  }
  return std::malloc(size != 0 ? size : 1);
}

void* AllocateOrThrow(std::size_t size) {
  void* block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

AllocationWatch::AllocationWatch(std::size_t successes) {
  count = 0;
  has_failed = false;
  successes_left = successes;
  is_watched = true;
}

AllocationWatch::~AllocationWatch() {
  is_watched = false;
}

std::size_t AllocationWatch::GetCount() const {
  return count;
}

bool AllocationWatch::HasFailed() const {
  return has_failed;
}

void* operator new(std::size_t size) {
  return AllocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}
