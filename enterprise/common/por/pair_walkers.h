#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

// Walks over two composites or two arrays at once. Each operation of a walker returns true to stop
// the walk; what is on the left only comes before what is on the right only.

namespace Por::Util {

class CompositePropertyWalker : public Common::NonCopyable {
 public:
  virtual ~CompositePropertyWalker() = default;
  virtual bool OnPair(const View::Property& left, const View::Property& right) = 0;
  virtual bool OnLeftOnly(const View::Property& left) = 0;
  virtual bool OnRightOnly(const View::Property& right) = 0;
};

class ArrayElementsWalker : public Common::NonCopyable {
 public:
  virtual ~ArrayElementsWalker() = default;
  virtual bool OnPair(const View::Unit& left, const View::Unit& right) = 0;
  virtual bool OnLeftOnly(const View::Unit& left) = 0;
  virtual bool OnRightOnly(const View::Unit& right) = 0;
};

class UnitTraitsWalker : public Common::NonCopyable {
 public:
  virtual ~UnitTraitsWalker() = default;
  virtual bool OnPair(const View::Trait& left, const View::Trait& right) = 0;
  virtual bool OnLeftOnly(const View::Trait& left) = 0;
  virtual bool OnRightOnly(const View::Trait& right) = 0;
};

// Pairs properties by name: the left ones in their order, then those that only the right has.
void WalkPair(const View::CompositeValue& left, const View::CompositeValue& right,
              CompositePropertyWalker& walker);

// Pairs elements by index, then the rest of the longer array.
void WalkPair(const View::ArrayValue& left, const View::ArrayValue& right,
              ArrayElementsWalker& walker);

}  // namespace Por::Util
