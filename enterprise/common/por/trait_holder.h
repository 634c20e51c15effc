#pragma once

#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit.h"

namespace Por {

// The in-memory trait: a name and an owned unit, neither of which changes its identity.
class TraitHolder final : public View::Trait {
 public:
  // A null value throws ModuleError 0xFA000B.
  TraitHolder(const Name& name, OwnedUnit value);

  const Name& GetName() const override { return name_; }
  const View::Unit& GetValue() const override { return *value_; }

 private:
  Name name_;
  OwnedUnit value_;
};

}  // namespace Por
