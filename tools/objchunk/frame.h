#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/objchunk/chunk_archive.h"

// The bytes of an archive that reader and writer share; docs/chunk-archive.md.

namespace ChunkTool {

// In front of an archive: a mark that suffers from every conversion of text, and the version.
inline constexpr unsigned char kMagic[] = {0x89, 'O', 'C', 'A', 0x0D, 0x0A, 0x1A, 0x0A, 1, 0, 0, 0};
inline constexpr std::size_t kFirstSlot = 16;
inline constexpr std::size_t kSlotSize = 24;

// XXH3, 64 bits, without a seed.
std::uint64_t Hash(const void* bytes, std::size_t size);

void PutSlot(unsigned char* place, const CommittedPart& part);
// False if there is none.
bool GetSlot(const unsigned char* place, CommittedPart& part);

// `number` is that of the frame in its archive, from 0.
void PutFrameHeader(unsigned char* place, const FrameHeader& header, std::uint64_t number);
// False if it is none, or another frame's.
bool GetFrameHeader(const unsigned char* place, FrameHeader& header, std::uint64_t number);

}  // namespace ChunkTool
