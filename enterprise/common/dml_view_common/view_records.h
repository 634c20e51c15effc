#pragma once

#include "enterprise/common/por/fwd.h"

namespace Dml {

// What a reader asks for. Both units may be null.
struct ViewSpec {
  Por::SharedUnit pattern;  // which objects
  Por::SharedUnit options;  // how the view is to be made
};

namespace ViewManagement {

inline constexpr unsigned int kUpdateCreated = 0;
inline constexpr unsigned int kUpdateUpdated = 1;
inline constexpr unsigned int kUpdateDeleted = 2;

// One change of one object. Units that came from outside may be null.
struct ViewUpdate {
  unsigned int type = kUpdateCreated;
  Por::SharedUnit key;            // the object (created) or its key
  Por::SharedUnit packed_update;  // the difference (updated)
};

}  // namespace ViewManagement
}  // namespace Dml
