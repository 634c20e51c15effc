#include "platform/resources/program_section.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/ipc/unique_descriptor.h"

namespace Platform::Resources {

namespace {

constexpr std::uint64_t kMaxSize = std::uint64_t{64} << 20;

// A file whose size is known; what is asked for is checked against it before memory is taken.
class ElfFile {
 public:
  explicit ElfFile(const std::string& path)
      : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    struct stat status;
    if (descriptor_ && ::fstat(descriptor_.Get(), &status) == 0 && S_ISREG(status.st_mode)) {
      size_ = static_cast<std::uint64_t>(status.st_size);
    }
  }

  bool Holds(std::uint64_t offset, std::uint64_t size) const {
    return size <= kMaxSize && offset <= size_ && size <= size_ - offset;
  }

  bool Read(std::uint64_t offset, void* to, std::size_t size) const {
    if (!Holds(offset, size)) return false;
    auto* at = static_cast<unsigned char*>(to);
    while (size != 0) {
      const ssize_t count = ::pread(descriptor_.Get(), at, size, static_cast<off_t>(offset));
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return false;
      at += count;
      offset += static_cast<std::uint64_t>(count);
      size -= static_cast<std::size_t>(count);
    }
    return true;
  }

 private:
  Ipc::UniqueDescriptor descriptor_;
  std::uint64_t size_ = 0;
};

bool IsOurKind(const Elf64_Ehdr& header) {
  return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
         header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
         header.e_shentsize == sizeof(Elf64_Shdr) && header.e_shstrndx < header.e_shnum;
}

// Whether the names, each ended by a 0, have `name` at `offset`.
bool HasName(const std::vector<char>& names, std::uint32_t offset, std::string_view name) {
  return offset < names.size() && names.size() - offset > name.size() &&
         std::string_view(names.data() + offset, name.size() + 1) ==
             std::string_view(name.data(), name.size() + 1);
}

}  // namespace

SectionBytes ReadSection(const std::string& path, const char* section) {
  const ElfFile file(path);
  Elf64_Ehdr header;
  if (!file.Read(0, &header, sizeof header) || !IsOurKind(header)) return {};
  const std::size_t table_size = header.e_shnum * sizeof(Elf64_Shdr);
  if (!file.Holds(header.e_shoff, table_size)) return {};
  std::vector<Elf64_Shdr> table(header.e_shnum);
  if (!file.Read(header.e_shoff, table.data(), table_size)) return {};
  const Elf64_Shdr& named = table[header.e_shstrndx];
  if (named.sh_type != SHT_STRTAB || !file.Holds(named.sh_offset, named.sh_size)) return {};
  std::vector<char> names(named.sh_size);
  if (!file.Read(named.sh_offset, names.data(), names.size())) return {};
  for (const Elf64_Shdr& entry : table) {
    if (!HasName(names, entry.sh_name, section)) continue;
    if (entry.sh_type != SHT_PROGBITS || (entry.sh_flags & SHF_COMPRESSED) != 0) return {};
    if (!file.Holds(entry.sh_offset, entry.sh_size)) return {};
    SectionBytes result{std::make_unique<unsigned char[]>(entry.sh_size), entry.sh_size};
    if (!file.Read(entry.sh_offset, result.bytes.get(), result.size)) return {};
    return result;
  }
  return {};
}

}  // namespace Platform::Resources
