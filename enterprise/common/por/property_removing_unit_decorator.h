#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/unit.h"

namespace Por::View {

// Shows a unit without one property of its composite, uncopied. Only a composite directly at the
// unit is filtered: a unit of another kind shows as it is, and a property of that name deeper in
// the tree stays visible. Traits show as they are.
//
// The shown unit is borrowed: it must outlive the decorator and not change meanwhile. Only an
// iterator of the shown composite allocates. Threads: as many readers as the shown unit allows.
class PropertyRemovingUnitDecorator final : public Unit {
 public:
  PropertyRemovingUnitDecorator(const Unit& inner, const Name& name)
      : inner_(&inner), name_(name) {}
  void Accept(UnitReader& reader) const override;
  const Traits& GetTraits() const override { return inner_->GetTraits(); }

 private:
  class Reader;
  class Value;
  struct IteratorState;

  const Unit* inner_;
  Name name_;
};

}  // namespace Por::View
