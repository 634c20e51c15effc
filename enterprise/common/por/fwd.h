#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/guid.h"
#include "core/common/string.h"

// The unit model in one look. A unit is a node of a self-describing tree: one value and a set of
// traits. Every class exists in three faces, one derived from the other: Por::View reads,
// Por::Modification changes values in place, Por::Construction changes the shape of the tree.

namespace Por {

class Name;

template <class T>
class ItemProcessor;

// The 17 kinds of value, once, in the order of the type index.
//   X(index, Word, ValueClass, CreateArgument): the word names the factory call (Create##Word), the
//   event of a walk (On##Word) and the call of a builder; ValueClass is the value class of a face.
// clang-format off
#define POR_SCALAR_KINDS(X)                                  \
  X(1, Boolean, ScalarValue<bool>, bool)                     \
  X(2, Byte, ScalarValue<unsigned char>, unsigned char)      \
  X(3, SByte, ScalarValue<signed char>, signed char)         \
  X(4, Word, ScalarValue<unsigned short>, unsigned short)    \
  X(5, SWord, ScalarValue<short>, short)                     \
  X(6, DWord, ScalarValue<unsigned int>, unsigned int)       \
  X(7, SDWord, ScalarValue<int>, int)                        \
  X(8, QWord, ScalarValue<unsigned long long>, unsigned long long) \
  X(9, SQWord, ScalarValue<long long>, long long)            \
  X(10, Double, ScalarValue<double>, double)
#define POR_COMPLEX_KINDS(X)                                                   \
  X(11, Blob, ComplexValue<std::vector<unsigned char>>, std::vector<unsigned char>) \
  X(12, Guid, ComplexValue<Common::Guid>, Common::Guid)                        \
  X(13, String, ComplexValue<Common::String>, Common::String)                  \
  X(14, Error, ComplexValue<Common::Error>, Common::Error)
#define POR_VALUE_KINDS(X)      \
  X(0, Nil, NilValue, void)     \
  POR_SCALAR_KINDS(X)           \
  POR_COMPLEX_KINDS(X)          \
  X(15, Array, ArrayValue, void) \
  X(16, Composite, CompositeValue, void)
// clang-format on

// Type indexes with names, for code that must name one.
inline constexpr unsigned int kNilIndex = 0;
inline constexpr unsigned int kGuidIndex = 12;
inline constexpr unsigned int kStringIndex = 13;
inline constexpr unsigned int kErrorIndex = 14;
inline constexpr unsigned int kArrayIndex = 15;
inline constexpr unsigned int kCompositeIndex = 16;
// Reported when nothing was visited; no unit has it. Also the number of kinds.
inline constexpr unsigned int kNoIndex = 17;

// Units nest at most this many levels where they come into the system, trait values counted.
inline constexpr unsigned int kMaxUnitDepth = 1000;

namespace View {
class Unit;
class UnitReader;
class Property;
class Trait;
class Traits;
class NilValue;
template <class T>
class ScalarValue;
template <class T>
class ComplexValue;
class ArrayValue;
class CompositeValue;
}  // namespace View

namespace Modification {
class Unit;
class UnitWriter;
class Property;
class Traits;
class NilValue;
template <class T>
class ScalarValue;
template <class T>
class ComplexValue;
class ArrayValue;
class CompositeValue;
}  // namespace Modification

namespace Construction {
class Unit;
class UnitBuilder;
class UnitFactory;
class Property;
class Traits;
class NilValue;
template <class T>
class ScalarValue;
template <class T>
class ComplexValue;
class ArrayValue;
class CompositeValue;
}  // namespace Construction

// Single owners. Ownership is handed over by value; a null pointer is no unit.
using OwnedUnit = std::unique_ptr<Construction::Unit>;
using OwnedProperty = std::unique_ptr<Construction::Property>;
using OwnedTrait = std::unique_ptr<View::Trait>;

// Shared, for reading only.
using SharedUnit = std::shared_ptr<const View::Unit>;

}  // namespace Por
