#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "core/common/non_copyable.h"

namespace Por::Detail {

// A stack of plain values, the first `N` of them without memory of its own. Places are indexes:
// growing moves the items.
template <class T, std::size_t N>
class SmallStack : public Common::NonCopyable {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  SmallStack() noexcept {}

  std::size_t GetSize() const noexcept { return size_; }
  T& operator[](std::size_t index) noexcept { return items_[index]; }
  const T& operator[](std::size_t index) const noexcept { return items_[index]; }
  T* begin() noexcept { return items_; }

  // Throws std::bad_alloc.
  void Push(const T& item) {
    if (size_ == capacity_) Grow();
    items_[size_++] = item;
  }
  // Not on an empty stack.
  T Pop() noexcept { return items_[--size_]; }
  // Drops what lies at `size` and above.
  void Truncate(std::size_t size) noexcept { size_ = size; }

 private:
  void Grow() {
    std::unique_ptr<T[]> grown(new T[capacity_ * 2]);
    std::memcpy(grown.get(), items_, size_ * sizeof(T));
    heap_ = std::move(grown);
    items_ = heap_.get();
    capacity_ *= 2;
  }

  std::size_t size_ = 0;
  std::size_t capacity_ = N;
  T inline_[N];  // left unset on purpose
  std::unique_ptr<T[]> heap_;
  T* items_ = inline_;
};

}  // namespace Por::Detail
