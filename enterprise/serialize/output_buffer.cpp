#include "enterprise/serialize/output_buffer.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace Serialization {

void OutputBuffer::WantHugePages(char* block) {
  static const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t before = reinterpret_cast<std::uintptr_t>(block) % page;
  const std::size_t size = before + ::malloc_usable_size(block);
  ::madvise(block - before, (size + page - 1) / page * page, MADV_HUGEPAGE);
}

}  // namespace Serialization
