#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

namespace Por::Detail {

// Head of the one block of an OwnedList; the slots follow it.
struct OwnedBlock {
  // The block itself if its memory is borrowed, else null; while it waits for its destruction the
  // next one that waits.
  OwnedBlock* next;
  std::uint32_t size;
  std::uint32_t capacity;
};

// For memory that holds nodes of a dying tree: if blocks wait for their destruction on this thread,
// some of them may lie there, so `function` is called when none waits any more and the result is
// true. Else the memory can go at once. There is one such function.
bool CallWhenNoneWaits(void (*function)() noexcept) noexcept;

// The children of one node of a tree: an array of owned pointers, one word large and without memory
// while nothing was added. `T` is Construction::Unit, Construction::Property or View::Trait.
// Null items are kept as they are.
//
// Destroying a list destroys trees of any depth in bounded stack and without allocation: below some
// depth the block of a dying list is put on a list of its thread, and the outermost destruction
// works it off.
template <class T>
class OwnedList : public Common::NonCopyable {
 public:
  using Owner = std::unique_ptr<T>;

  OwnedList() noexcept = default;
  ~OwnedList() {
    if (block_ != nullptr) Dispose(block_);
  }

  bool IsEmpty() const noexcept { return GetSize() == 0; }
  std::size_t GetSize() const noexcept { return block_ == nullptr ? 0 : block_->size; }
  // `index` below the size.
  T* operator[](std::size_t index) const noexcept { return Slots()[index]; }

  // `index` at most the size. Throws std::bad_alloc and then leaves the list as it was.
  void Insert(std::size_t index, Owner item);
  void PushBack(Owner item) {
    if (block_ == nullptr || block_->size == block_->capacity) Grow();
    Slots()[block_->size++] = item.release();
  }
  // Destroys the item at `index`, which is below the size, and puts another in its place.
  void Replace(std::size_t index, Owner item) noexcept;
  // Destroys the items from `first` up to but not including `last`; both at most the size.
  void Erase(std::size_t first, std::size_t last) noexcept;

  // Gives an empty list `count` items, at most 2^32 - 1, in memory of the caller: GetBlockSize
  // bytes, aligned for pointers, which must outlive the list. The items, each made of a T*, become
  // the list's own.
  static constexpr std::size_t GetBlockSize(std::size_t count) {
    return sizeof(OwnedBlock) + sizeof(T*) * count;
  }
  void Borrow(void* memory, void* const* items, std::size_t count) noexcept;

 private:
  T** Slots() const noexcept { return reinterpret_cast<T**>(block_ + 1); }
  void Grow();
  static void Dispose(OwnedBlock* block) noexcept;

  OwnedBlock* block_ = nullptr;
};

extern template class OwnedList<Construction::Unit>;
extern template class OwnedList<Construction::Property>;
extern template class OwnedList<View::Trait>;

}  // namespace Por::Detail
