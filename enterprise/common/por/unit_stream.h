#pragma once

#include <cstddef>
#include <cstdint>

#include "enterprise/common/por/binary_data.h"
#include "enterprise/common/por/unit.h"

// What the writers and readers of the binary form share; the layout stands in unit_blob.h.

namespace Por::Util::UnitStream {

enum Tag : unsigned char {
  kBlob = 11,
  kGuid = 12,
  kString = 13,
  kError = 14,
  kArray = 'A',
  kComposite = 'C',
  kUnitEnd = 'E',
  kProperty = 'P',
  kTrait = 'T',
  kUnitBegin = 'U',
};

// The count that is written for `length` bytes; ModuleError 0xFA000F if it has no room for them.
std::uint32_t CheckCount(std::size_t length);

inline constexpr std::size_t kWholeBuffer = 4096;

// Writes the whole stream of `unit`, the same bytes as a walk with a BinaryDataProvider, and
// several times as fast: items are laid into a buffer. The consumer sees what the buffer holds when
// the next item has no room in it and, as soon as a unit ends, what makes up whole pieces of
// `piece` bytes; payloads above 1 KiB go to the consumer as they are.
void Write(const View::Unit& unit, BinaryDataConsumer& consumer, std::size_t piece = kWholeBuffer);

}  // namespace Por::Util::UnitStream
