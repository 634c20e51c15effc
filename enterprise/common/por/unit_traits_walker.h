#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

namespace Por::Util {

// A walk over the traits of two units at once, paired by name and equal value: the left ones in
// their order, then those that only the right unit has. A name may occur several times, and one
// partner may serve several. Each operation returns true to stop. See EqualityCheck::WalkPair.
class UnitTraitsWalker : public Common::NonCopyable {
 public:
  virtual ~UnitTraitsWalker() = default;
  virtual bool OnPair(const View::Trait& left, const View::Trait& right) = 0;
  virtual bool OnLeftOnly(const View::Trait& left) = 0;
  virtual bool OnRightOnly(const View::Trait& right) = 0;
};

}  // namespace Por::Util
