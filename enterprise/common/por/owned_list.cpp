#include "enterprise/common/por/owned_list.h"

#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit.h"

namespace Por::Detail {
namespace {

// Lists that die inside each other up to this depth are destroyed by plain recursion.
constexpr unsigned int kPlainDepth = 64;

// What a waiting block holds; written over its capacity, which is no longer needed.
enum Content : std::uint32_t { kUnits, kProperties, kTraits };

template <class T>
constexpr Content kContent = std::is_same_v<T, Construction::Unit>       ? kUnits
                             : std::is_same_v<T, Construction::Property> ? kProperties
                                                                         : kTraits;

struct Disposal {
  unsigned int depth;
  OwnedBlock* waiting;
  void (*when_none_waits)() noexcept;
};
constinit thread_local Disposal disposal{0, nullptr, nullptr};

// A bit beside the content of a waiting block: its memory is not its own.
constexpr std::uint32_t kBorrowed = 1u << 31;

bool IsBorrowed(const OwnedBlock* block) {
  return block->next == block;
}

template <class T>
void DestroyBlock(OwnedBlock* block, bool borrowed) noexcept {
  T** const slots = reinterpret_cast<T**>(block + 1);
  for (std::uint32_t i = 0; i < block->size; ++i) delete slots[i];
  if (!borrowed) ::operator delete(block);
}

void DestroyWaiting() noexcept {
  while (disposal.waiting != nullptr) {
    OwnedBlock* const block = disposal.waiting;
    disposal.waiting = block->next;
    const bool borrowed = (block->capacity & kBorrowed) != 0;
    switch (static_cast<Content>(block->capacity & ~kBorrowed)) {
      case kUnits:
        DestroyBlock<Construction::Unit>(block, borrowed);
        break;
      case kProperties:
        DestroyBlock<Construction::Property>(block, borrowed);
        break;
      case kTraits:
        DestroyBlock<View::Trait>(block, borrowed);
        break;
    }
  }
  if (disposal.when_none_waits != nullptr) std::exchange(disposal.when_none_waits, nullptr)();
}

}  // namespace

bool CallWhenNoneWaits(void (*function)() noexcept) noexcept {
  if (disposal.waiting == nullptr) return false;
  disposal.when_none_waits = function;
  return true;
}

template <class T>
void OwnedList<T>::Dispose(OwnedBlock* block) noexcept {
  if (disposal.depth == kPlainDepth) {
    block->capacity = kContent<T> | (IsBorrowed(block) ? kBorrowed : 0);
    block->next = disposal.waiting;
    disposal.waiting = block;
    return;
  }
  ++disposal.depth;
  DestroyBlock<T>(block, IsBorrowed(block));
  if (disposal.depth == 1) DestroyWaiting();
  --disposal.depth;
}

// Block sizes fill what an allocator with steps of 16 bytes and a word of its own hands out: 40,
// 104, 232, ... bytes; for traits, mostly one to a unit, 24, 72, 168, ...
template <class T>
void OwnedList<T>::Grow() {
  constexpr std::uint32_t kFirst = std::is_same_v<T, View::Trait> ? 1 : 3;
  const std::uint32_t size = static_cast<std::uint32_t>(GetSize());
  std::uint32_t capacity = kFirst;
  if (block_ != nullptr) {
    constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
    if (block_->capacity == kMost) throw std::bad_alloc();
    capacity = block_->capacity > (kMost - 5) / 2 ? kMost : block_->capacity * 2 + 5;
  }
  OwnedBlock* const grown = static_cast<OwnedBlock*>(
      ::operator new (sizeof(OwnedBlock) + sizeof(T*) * std::size_t{capacity}));
  grown->next = nullptr;
  grown->size = size;
  grown->capacity = capacity;
  if (block_ != nullptr) {
    std::memcpy(grown + 1, block_ + 1, sizeof(T*) * size);
    if (!IsBorrowed(block_)) ::operator delete(block_);
  }
  block_ = grown;
}

template <class T>
void OwnedList<T>::Insert(std::size_t index, Owner item) {
  if (block_ == nullptr || block_->size == block_->capacity) Grow();
  T** const slots = Slots();
  std::memmove(slots + index + 1, slots + index, sizeof(T*) * (block_->size - index));
  slots[index] = item.release();
  ++block_->size;
}

template <class T>
void OwnedList<T>::Borrow(void* memory, void* const* items, std::size_t count) noexcept {
  const std::uint32_t size = static_cast<std::uint32_t>(count);
  block_ = new (memory) OwnedBlock{nullptr, size, size};
  block_->next = block_;
  for (std::size_t i = 0; i < count; ++i) Slots()[i] = static_cast<T*>(items[i]);
}

template <class T>
void OwnedList<T>::Replace(std::size_t index, Owner item) noexcept {
  Owner old(Slots()[index]);
  Slots()[index] = item.release();
}

template <class T>
void OwnedList<T>::Erase(std::size_t first, std::size_t last) noexcept {
  if (first == last) return;
  T** const slots = Slots();
  for (std::size_t i = first; i < last; ++i) delete slots[i];
  std::memmove(slots + first, slots + last, sizeof(T*) * (block_->size - last));
  block_->size -= static_cast<std::uint32_t>(last - first);
}

template class OwnedList<Construction::Unit>;
template class OwnedList<Construction::Property>;
template class OwnedList<View::Trait>;

}  // namespace Por::Detail
