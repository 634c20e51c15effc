#include "tests/core/common/unix/live_allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constinit std::atomic<long> made{0};
constinit std::atomic<long> freed{0};

void* Allocate(std::size_t size) noexcept {
  void* const block = std::malloc(size != 0 ? size : 1);
  if (block != nullptr) ++made;
  return block;
}

void* AllocateOrThrow(std::size_t size) {
  void* const block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void Free(void* block) noexcept {
  if (block != nullptr) ++freed;
  std::free(block);
}

}  // namespace

long CountAllocations() {
  return made;
}

long CountLiveAllocations() {
  return made - freed;
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
  Free(block);
}
void operator delete[](void* block) noexcept {
  Free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  Free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  Free(block);
}
