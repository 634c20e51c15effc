#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "core/include/file/file.h"

// Files for reading that lie in memory.

namespace Core {

// A position in a block of memory that it borrows. Any position is allowed; outside of the block
// there is nothing to read. Sums wrap around.
class memory_position {
 public:
  memory_position(const void* block, std::uint64_t size)
      : block_(static_cast<const unsigned char*>(block)), size_(size) {}

  std::uint64_t GetSize() const { return size_; }
  // Copies what there is of `size` bytes, moves behind it and gives its number.
  std::uint64_t Read(void* buffer, std::uint64_t size);
  std::int64_t Seek(std::int64_t offset) { return position_ = offset; }
  std::int64_t SeekCurrent(std::int64_t offset) { return Add(position_, offset); }
  std::int64_t SeekEnd(std::int64_t offset) {
    return Add(static_cast<std::int64_t>(size_), offset);
  }

 private:
  std::int64_t Add(std::int64_t base, std::int64_t offset) {
    return position_ = static_cast<std::int64_t>(static_cast<std::uint64_t>(base) +
                                                 static_cast<std::uint64_t>(offset));
  }

  const unsigned char* block_;
  std::uint64_t size_;
  std::int64_t position_ = 0;
};

// A file over a text. Reads also while a failure stands.
template <class Char>
class buf_ifile final : public ri_file {
  static_assert(sizeof(Char) == 1);

 public:
  // Borrows the text, which must outlive the file.
  buf_ifile(const Char* text, std::uint64_t size) : position_(text, size) {}
  // Takes the text over; null holds nothing.
  buf_ifile(std::unique_ptr<Char[]> text, std::uint64_t size)
      : text_(std::move(text)), position_(text_.get(), text_ == nullptr ? 0 : size) {}

  void Read(void* buffer, std::uint64_t size, std::uint64_t& count) override {
    count = position_.Read(buffer, size);
  }
  std::int64_t Seek(std::int64_t offset) override { return position_.Seek(offset); }
  std::int64_t SeekCurrent(std::int64_t offset) override { return position_.SeekCurrent(offset); }
  std::int64_t SeekEnd(std::int64_t offset) override { return position_.SeekEnd(offset); }

 private:
  std::unique_ptr<Char[]> text_;
  memory_position position_;
};

extern template class buf_ifile<char>;

// A file over a block that it owns, such as the value of an element that was decoded.
class MemoryFile final : public ri_file {
 public:
  // A null block holds nothing.
  MemoryFile(std::unique_ptr<unsigned char[]> block, std::uint64_t size)
      : block_(std::move(block)), position_(block_.get(), block_ == nullptr ? 0 : size) {}

  void Read(void* buffer, std::uint64_t size, std::uint64_t& count) override;
  // Of the block; nothing is moved.
  std::uint64_t GetSize() override { return position_.GetSize(); }
  std::int64_t Seek(std::int64_t offset) override { return position_.Seek(offset); }
  std::int64_t SeekCurrent(std::int64_t offset) override { return position_.SeekCurrent(offset); }
  std::int64_t SeekEnd(std::int64_t offset) override { return position_.SeekEnd(offset); }

 private:
  std::unique_ptr<unsigned char[]> block_;
  memory_position position_;
};

}  // namespace Core
