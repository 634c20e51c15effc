#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

namespace Por::Util {

// A walk over the properties of two composites at once, paired by name: the left ones in their
// order, then those that only the right composite has. Each operation returns true to stop.
class CompositePropertyWalker : public Common::NonCopyable {
 public:
  virtual ~CompositePropertyWalker() = default;
  virtual bool OnPair(const View::Property& left, const View::Property& right) = 0;
  virtual bool OnLeftOnly(const View::Property& left) = 0;
  virtual bool OnRightOnly(const View::Property& right) = 0;
};

void WalkPair(const View::CompositeValue& left, const View::CompositeValue& right,
              CompositePropertyWalker& walker);

}  // namespace Por::Util
