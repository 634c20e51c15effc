#pragma once

#include <cstddef>
#include <memory>

namespace Platform::Resources {

// A ZIP archive in memory. Threads: one at a time.
class ZipArchive {
 public:
  virtual ~ZipArchive() = default;

  // Unpacks a file of `*size` bytes; null if there is no such file, or it is encrypted, packed
  // by other means than deflate, damaged (its CRC counts) or larger than `limit`, which is looked
  // at before memory is taken, or if there is no memory. `limit` is below 4 GiB.
  virtual std::unique_ptr<unsigned char[]> Read(const char* name, std::size_t limit,
                                                unsigned int* size) const = 0;
};

// Opens an archive, which is borrowed and isn't changed. The caller owns the result, made by new;
// null if the bytes end in no directory of an archive, or in one of more than 1,000 files, or if
// there is no memory. Threads: any.
ZipArchive* OpenZip(const void* bytes, std::size_t size);

// The module with it, which is loaded with the first language that isn't English, so that English
// doesn't pay for the ZIP library.
inline constexpr char kZipModule[] = "objprobe-zip.so";
using OpenZipFunction = decltype(OpenZip);
inline constexpr char kOpenZipSymbol[] = "ObjprobeOpenZip";

}  // namespace Platform::Resources
