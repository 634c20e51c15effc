#include "core/xml/tree_memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>

namespace Core::XmlDetail {

namespace {

constexpr std::size_t kSmallest = std::size_t{4} << 10;
constexpr std::size_t kHugePage = std::size_t{2} << 20;

bool IsLarge(std::size_t size) {
  return size >= kHugePage;
}

// Whole huge pages. They come from the system and go back to it: the heap would be torn by blocks
// of such an alignment. Throws std::bad_alloc.
void* MapHugePages(std::size_t size) {
  const std::size_t mapped_size = size + kHugePage;
  void* const mapping =
      ::mmap(nullptr, mapped_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) throw std::bad_alloc();
  // What is too much on both sides goes back at once.
  char* const begin = static_cast<char*>(mapping);
  const std::size_t before = -reinterpret_cast<std::uintptr_t>(begin) % kHugePage;
  if (before != 0) ::munmap(begin, before);
  ::munmap(begin + before + size, mapped_size - before - size);
  // A wish: without huge pages everything works the same.
  ::madvise(begin + before, size, MADV_HUGEPAGE);
  return begin + before;
}

}  // namespace

Chunk* MakeChunk(std::size_t size, Chunk* former) {
  if (size > std::numeric_limits<std::size_t>::max() / 4) throw std::bad_alloc();
  const std::size_t total = former == nullptr ? 0 : former->total;
  // The first pieces are small, as most documents are; from the fifth on each is half of what the
  // document has and a huge page at least. Memory that nothing was written to doesn't exist yet.
  std::size_t wanted = std::max((size + sizeof(Chunk) + 7) & ~std::size_t{7}, kSmallest);
  if (total < kHugePage / 8) {
    wanted = std::max(wanted, total * 3);
  } else {
    wanted = std::max({wanted, total / 2, kHugePage});
  }
  if (!IsLarge(wanted)) {
    return new (::operator new(wanted)) Chunk{former, wanted, total + wanted};
  }
  wanted = (wanted + kHugePage - 1) / kHugePage * kHugePage;
  return new (MapHugePages(wanted)) Chunk{former, wanted, total + wanted};
}

void ReleaseChunk(Chunk* chunk) noexcept {
  if (IsLarge(chunk->size)) {
    ::munmap(chunk, chunk->size);
  } else {
    ::operator delete(chunk);
  }
}

}  // namespace Core::XmlDetail
