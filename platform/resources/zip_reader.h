#pragma once

#include <cstddef>

namespace Platform::Resources {

// Unpacks a file of a ZIP archive in memory. Owned, of `*size` bytes, made by new[]; null if there
// is no such file, or it is encrypted, damaged (its CRC counts) or larger than 16 MiB, or if there
// is no memory. The archive is borrowed and isn't changed. Threads: any.
unsigned char* ReadZip(const void* archive, std::size_t archive_size, const char* name,
                       unsigned int* size);

// The module with it, which is loaded with the first language that isn't English: linking the ZIP
// library costs a process more at start than a small report takes.
inline constexpr char kZipModule[] = "objprobe-zip.so";
using ReadZipFunction = decltype(ReadZip);
inline constexpr char kReadZipSymbol[] = "ObjprobeReadZip";

}  // namespace Platform::Resources
