#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

namespace Por::Detail {

// Head of the one heap block of an OwnedList; the slots follow it.
struct OwnedBlock {
  OwnedBlock* next;  // used only while the block waits for its destruction
  std::uint32_t size;
  std::uint32_t capacity;
};

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
