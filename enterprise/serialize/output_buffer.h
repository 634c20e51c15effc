#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "core/common/non_copyable.h"

namespace Serialization {

// Bytes that grow at the end. A large block grows by moving pages, not by copying bytes, and its
// unused end never becomes real memory, but for what a huge page has left. Throws std::bad_alloc;
// the content then stays.
class OutputBuffer : public Common::NonCopyable {
 public:
  OutputBuffer() = default;
  ~OutputBuffer() { std::free(begin_); }

  std::size_t GetSize() const { return static_cast<std::size_t>(end_ - begin_); }
  const char* GetData() const { return begin_; }
  // Whether something is missing in the content, since room for it couldn't be had. It stays so.
  bool HasFailed() const { return has_failed_; }
  void SetFailed() { has_failed_ = true; }

  // The end of the content, with room for `size` bytes behind it. What is written there counts from
  // the call of SetEnd on; until then nothing else may be called.
  char* Reserve(std::size_t size) {
    if (static_cast<std::size_t>(limit_ - end_) < size) Grow(size);
    return end_;
  }
  void SetEnd(char* end) { end_ = end; }

  void Append(std::string_view text) { SetEnd(Put(Reserve(text.size()), text)); }
  // Cuts the content back.
  void Truncate(std::size_t size) { end_ = begin_ + size; }

  // Copies a text to `to` and gives the end of it.
  static char* Put(char* to, std::string_view text) {
    if (!text.empty()) std::memcpy(to, text.data(), text.size());
    return to + text.size();
  }

  // Hands the block over, to be freed with std::free; the content is empty then.
  char* Release() {
    end_ = limit_ = nullptr;
    return std::exchange(begin_, nullptr);
  }

 private:
  static constexpr std::size_t kFirstSize = 512;
  // Blocks for which huge pages are worth it: fresh small ones cost more than what is written
  // there.
  static constexpr std::size_t kLarge = std::size_t{4} << 20;

  // A wish. For all pages that the block lies in, as pages of two kinds can't be moved together.
  static void WantHugePages(char* block);

  void Grow(std::size_t size) {
    const std::size_t used = GetSize();
    const std::size_t wanted = used + size;
    if (wanted < used) Fail();
    std::size_t capacity = static_cast<std::size_t>(limit_ - begin_);
    capacity = capacity < kFirstSize / 2 ? kFirstSize : 2 * capacity;
    if (capacity < wanted) capacity = wanted;
    char* const block = static_cast<char*>(std::realloc(begin_, capacity));
    if (block == nullptr) Fail();
    if (capacity >= kLarge) WantHugePages(block);
    begin_ = block;
    end_ = block + used;
    limit_ = block + capacity;
  }

  [[noreturn]] void Fail() {
    has_failed_ = true;
    throw std::bad_alloc();
  }

  char* begin_ = nullptr;
  char* end_ = nullptr;
  char* limit_ = nullptr;
  bool has_failed_ = false;
};

}  // namespace Serialization
