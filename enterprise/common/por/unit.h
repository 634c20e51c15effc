#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

// One node of the value tree in its three faces. A unit's value is never asked for by a type test:
// the unit is visited and calls the one Visit that fits its value, in the visitor's face.
//
// Threads: a tree is owned by one thread, or read by many and changed by none. No locks.

namespace Por::View {

class Unit : public Common::NonCopyable {
 public:
  virtual ~Unit() = default;
  virtual void Accept(UnitReader& reader) const = 0;
  virtual const Traits& GetTraits() const = 0;
};

}  // namespace Por::View

namespace Por::Modification {

class Unit : public View::Unit {
 public:
  using View::Unit::Accept;
  virtual void Accept(UnitWriter& writer) = 0;
};

}  // namespace Por::Modification

namespace Por::Construction {

class Unit : public Modification::Unit {
 public:
  using Modification::Unit::Accept;
  using View::Unit::GetTraits;
  virtual void Accept(UnitBuilder& builder) = 0;
  virtual Traits& GetTraits() = 0;
};

}  // namespace Por::Construction
