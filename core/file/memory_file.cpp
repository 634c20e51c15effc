#include "core/file/memory_file.h"

#include <algorithm>
#include <cstring>

namespace Core {

template class buf_ifile<char>;

std::uint64_t memory_position::Read(void* buffer, std::uint64_t size) {
  // A negative position is a large one here.
  const auto position = static_cast<std::uint64_t>(position_);
  if (position >= size_) return 0;
  const std::uint64_t count = std::min(size, size_ - position);
  if (count == 0) return 0;
  std::memcpy(buffer, block_ + position, count);
  position_ = static_cast<std::int64_t>(position + count);
  return count;
}

void MemoryFile::Read(void* buffer, std::uint64_t size, std::uint64_t& count) {
  count = HasFailed() ? 0 : position_.Read(buffer, size);
}

}  // namespace Core
