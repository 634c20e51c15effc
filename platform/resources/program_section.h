#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace Platform::Resources {

// The section of a program's file that holds its resource store.
inline constexpr char kStoreSection[] = ".objprobe.res";

struct SectionBytes {
  std::unique_ptr<unsigned char[]> bytes;  // null if there is no such section
  std::size_t size = 0;
};

// Reads a section of an ELF file of 64 bits with the low byte first, for whatever machine. None for
// a file that is anything else, that contradicts itself, or whose section takes more than 64 MiB.
// Throws std::bad_alloc. Threads: any.
SectionBytes ReadSection(const std::string& file, const char* section);

}  // namespace Platform::Resources
