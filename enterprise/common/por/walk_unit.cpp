#include "enterprise/common/por/walk_unit.h"

#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"

namespace Por::Util {
namespace {

// Carries one walk: what stays the same from unit to unit.
class HierarchyWalker {
 public:
  HierarchyWalker(TraitValueGuide& guide, UnitWalker& walker) : guide_(&guide), walker_(&walker) {}

  void Walk(const View::Unit& unit);
  UnitWalker& GetWalker() const { return *walker_; }

 private:
  TraitValueGuide* guide_;
  UnitWalker* walker_;
};

// Gives the event of a visited value and goes on to what the value holds.
class ValueEvents {
 public:
  ValueEvents(HierarchyWalker& hierarchy, bool descend)
      : hierarchy_(&hierarchy), descend_(descend) {}

  void operator()(const View::NilValue&) { hierarchy_->GetWalker().OnNil(); }
#define POR_EVENT(index, Word, Value, Argument)    \
  void operator()(const View::Value& value) {      \
    hierarchy_->GetWalker().On##Word(value.Get()); \
  }
  POR_SCALAR_KINDS(POR_EVENT)
  POR_COMPLEX_KINDS(POR_EVENT)
#undef POR_EVENT
  void operator()(const View::ArrayValue& value) {
    hierarchy_->GetWalker().OnArray();
    if (!descend_) return;
    auto processor = MakeProcessor<const View::Unit>(
        [this](const View::Unit& element) { hierarchy_->Walk(element); });
    value.ForEach(processor);
  }
  void operator()(const View::CompositeValue& value) {
    hierarchy_->GetWalker().OnComposite();
    if (!descend_) return;
    auto processor = MakeProcessor<const View::Property>([this](const View::Property& property) {
      hierarchy_->GetWalker().OnProperty(property.GetName());
      hierarchy_->Walk(property.GetValue());
    });
    value.ForEach(processor);
  }

 private:
  HierarchyWalker* hierarchy_;
  bool descend_;
};

class HierarchyWalkerCrossroad final : public TraitValueCrossroad {
 public:
  HierarchyWalkerCrossroad(HierarchyWalker& hierarchy, const View::Unit& unit)
      : hierarchy_(&hierarchy), unit_(&unit) {}

  void GoValue(bool descend) override {
    ValueEvents events(*hierarchy_, descend);
    View::Detail::UnitVisitorAdaptor<ValueEvents> visitor(events);
    unit_->Accept(visitor);
  }

  void GoTraits() override {
    auto processor = MakeProcessor<const View::Trait>([this](const View::Trait& trait) {
      hierarchy_->GetWalker().OnTrait(trait.GetName());
      hierarchy_->Walk(trait.GetValue());
    });
    unit_->GetTraits().ForEach(processor);
  }

 private:
  HierarchyWalker* hierarchy_;
  const View::Unit* unit_;
};

void HierarchyWalker::Walk(const View::Unit& unit) {
  walker_->OnUnitBegin();
  HierarchyWalkerCrossroad crossroad(*this, unit);
  guide_->Follow(crossroad);
  walker_->OnUnitEnd();
}

}  // namespace

void WalkValueFirstGuide::Follow(TraitValueCrossroad& crossroad) {
  crossroad.GoValue(true);
  crossroad.GoTraits();
}

void WalkUnit(const View::Unit& unit, TraitValueGuide& guide, UnitWalker& walker) {
  HierarchyWalker(guide, walker).Walk(unit);
}

void WalkUnit(const View::Unit& unit, UnitWalker& walker) {
  WalkValueFirstGuide guide;
  WalkUnit(unit, guide, walker);
}

}  // namespace Por::Util
