#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

namespace Por::Util {

// A walk over the elements of two arrays at once, paired by index, then over the rest of the longer
// one. Each operation returns true to stop.
class ArrayElementsWalker : public Common::NonCopyable {
 public:
  virtual ~ArrayElementsWalker() = default;
  virtual bool OnPair(const View::Unit& left, const View::Unit& right) = 0;
  virtual bool OnLeftOnly(const View::Unit& left) = 0;
  virtual bool OnRightOnly(const View::Unit& right) = 0;
};

void WalkPair(const View::ArrayValue& left, const View::ArrayValue& right,
              ArrayElementsWalker& walker);

}  // namespace Por::Util
