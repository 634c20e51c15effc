#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/unit_walker.h"

// The walk of a unit tree as a run of events, its canonical linear form. Recurses once a level.

namespace Por::Util {

// The two ways on from a unit, offered to a guide.
class TraitValueCrossroad : public Common::NonCopyable {
 public:
  virtual ~TraitValueCrossroad() = default;
  // Walks the unit's value, and its elements or members too if `descend` is true.
  virtual void GoValue(bool descend) = 0;
  // Walks the unit's traits.
  virtual void GoTraits() = 0;
};

// Chooses the order in which the value and the traits of a unit are walked.
class TraitValueGuide : public Common::NonCopyable {
 public:
  virtual ~TraitValueGuide() = default;
  virtual void Follow(TraitValueCrossroad& crossroad) = 0;
};

// The whole value, then the traits.
class WalkValueFirstGuide final : public TraitValueGuide {
 public:
  void Follow(TraitValueCrossroad& crossroad) override;
};

// Raises what the unit's accessors, the guide and the walker raise.
void WalkUnit(const View::Unit& unit, TraitValueGuide& guide, UnitWalker& walker);
// With a WalkValueFirstGuide.
void WalkUnit(const View::Unit& unit, UnitWalker& walker);

}  // namespace Por::Util
