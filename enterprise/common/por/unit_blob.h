#pragma once

#include <cstddef>
#include <vector>

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_walker.h"

// The binary form of a unit. A run of items, each one byte of tag and a payload; numbers are
// little-endian and nothing is aligned. There is no header and no length of the whole.
//
//   tag  event         payload
//   'U'  OnUnitBegin
//   'E'  OnUnitEnd
//   'P'  OnProperty    the name as a string item, tag included
//   'T'  OnTrait       the name as a string item, tag included
//   'A'  OnArray
//   'C'  OnComposite
//   0    OnNil
//   1    OnBoolean     1 byte, false is 0
//   2,3  OnByte        1 byte         (OnByte, OnSByte)
//   4,5  OnWord        2 bytes        (OnWord, OnSWord)
//   6,7  OnDWord       4 bytes        (OnDWord, OnSDWord)
//   8,9  OnQWord       8 bytes        (OnQWord, OnSQWord)
//   10   OnDouble      8 bytes, IEEE 754
//   11   OnBlob        u32 byte count, the bytes
//   12   OnGuid        16 bytes
//   13   OnString      u32 byte count (two per code unit), the UTF-16 code units
//   14   OnError       u32 byte count, the byte form of the error
//
// Tags 0 to 14 are type indexes.

namespace Por::Util {

// Replaces the content of `bytes` by the stream of `unit`. Text with more bytes than a count can
// tell throws ModuleError 0xFA000F.
void WriteUnitBlob(const View::Unit& unit, std::vector<unsigned char>& bytes);

// The root unit of a stream. Null for no bytes and for a stream that ends no root unit: callers
// expect that.
// Throws ModuleError 0xFA0021, with the position and all data in hexadecimal, for data that is cut
// short, holds an unknown tag or nests deeper than kMaxUnitDepth; the out-of-memory error when that
// text needs more memory than there is; what the builder raises for items in the wrong place.
OwnedUnit ReadUnitBlob(const unsigned char* data, std::size_t size,
                       const Construction::UnitFactory& factory);
OwnedUnit ReadUnitBlob(const std::vector<unsigned char>& bytes,
                       const Construction::UnitFactory& factory);

// The events of a stream, with all that its reader tolerates: one more OnUnitBegin before the first
// tag and before each OnComposite, and no check of how, or how deep, the events nest. Throws for
// bad data as ReadUnitBlob does.
void FollowUnitBlob(const unsigned char* data, std::size_t size, UnitWalker& walker);

}  // namespace Por::Util
