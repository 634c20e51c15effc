#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/value.h"

// From a value class, or the C++ type that it holds, to its type index.

namespace Por::Util::Detail {

// Index of a visited value, of any face.
#define POR_INDEX(index, Word, Value, Argument)             \
  constexpr unsigned int IndexOfValue(const View::Value&) { \
    return index;                                           \
  }
POR_VALUE_KINDS(POR_INDEX)
#undef POR_INDEX

// The families of values that hold a C++ type.
struct ScalarValueTag {
  template <class T>
  using View = Por::View::ScalarValue<T>;
  template <class T>
  using Modification = Por::Modification::ScalarValue<T>;
};
struct ComplexValueTag {
  template <class T>
  using View = Por::View::ComplexValue<T>;
  template <class T>
  using Modification = Por::Modification::ComplexValue<T>;
};

// Index and family of the kind that holds `T`; other types, std::int64_t where it is long among
// them, have none and don't compile.
template <class T>
struct KindOf;

#define POR_KIND(index, Word, Value, Argument)    \
  template <>                                     \
  struct KindOf<Argument> {                       \
    static constexpr unsigned int kIndex = index; \
    using Tag = POR_KIND_TAG;                     \
  };
#define POR_KIND_TAG ScalarValueTag
POR_SCALAR_KINDS(POR_KIND)
#undef POR_KIND_TAG
#define POR_KIND_TAG ComplexValueTag
POR_COMPLEX_KINDS(POR_KIND)
#undef POR_KIND_TAG
#undef POR_KIND

}  // namespace Por::Util::Detail
