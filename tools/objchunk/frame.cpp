#include "tools/objchunk/frame.h"

#include <xxhash.h>

#include "core/file/packed_number.h"

namespace ChunkTool {

using Core::GetNumber;
using Core::PutNumber;

namespace {

constexpr std::size_t kHashedPart = 20;  // of a frame's header

}  // namespace

std::uint64_t Hash(const void* bytes, std::size_t size) {
  return XXH3_64bits(bytes, size);
}

void PutSlot(unsigned char* place, const CommittedPart& part) {
  PutNumber(place, part.size);
  PutNumber(place + 8, part.frames);
  PutNumber(place + 16, Hash(place, 16));
}

bool GetSlot(const unsigned char* place, CommittedPart& part) {
  part.size = GetNumber<std::uint64_t>(place);
  part.frames = GetNumber<std::uint64_t>(place + 8);
  return GetNumber<std::uint64_t>(place + 16) == Hash(place, 16) && part.size >= kArchiveHeaderSize;
}

void PutFrameHeader(unsigned char* place, const FrameHeader& header, std::uint64_t number) {
  PutNumber(place, header.size);
  place[4] = static_cast<unsigned char>(header.kind);
  place[5] = header.type;
  PutNumber(place + 6, std::uint16_t{0});
  PutNumber(place + 8, header.hash);
  PutNumber(place + 16, static_cast<std::uint32_t>(number));
  PutNumber(place + 20, static_cast<std::uint32_t>(Hash(place, kHashedPart)));
}

bool GetFrameHeader(const unsigned char* place, FrameHeader& header, std::uint64_t number) {
  header.size = GetNumber<std::uint32_t>(place);
  header.kind = static_cast<FrameKind>(place[4]);
  header.type = place[5];
  header.hash = GetNumber<std::uint64_t>(place + 8);
  return GetNumber<std::uint32_t>(place + 20) ==
             static_cast<std::uint32_t>(Hash(place, kHashedPart)) &&
         GetNumber<std::uint32_t>(place + 16) == static_cast<std::uint32_t>(number) &&
         header.size <= kMaxPayload;
}

}  // namespace ChunkTool
