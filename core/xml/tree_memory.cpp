#include "core/xml/tree_memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <limits>
#include <new>

namespace Core::XmlDetail {

namespace {

constexpr std::size_t kSmallest = std::size_t{4} << 10;
constexpr std::size_t kHugePage = std::size_t{2} << 20;
constexpr std::align_val_t kHugeAlignment{kHugePage};

bool IsLarge(std::size_t size) {
  return size >= kHugePage;
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
  void* const memory = ::operator new(wanted, kHugeAlignment);
  // A wish: without huge pages everything works the same.
  ::madvise(memory, wanted, MADV_HUGEPAGE);
  return new (memory) Chunk{former, wanted, total + wanted};
}

void ReleaseChunk(Chunk* chunk) noexcept {
  if (IsLarge(chunk->size)) {
    ::operator delete(chunk, kHugeAlignment);
  } else {
    ::operator delete(chunk);
  }
}

}  // namespace Core::XmlDetail
