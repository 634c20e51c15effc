#pragma once

#include "enterprise/common/por/property.h"

namespace Por {

// The in-memory property: a name and an owned unit, neither of which changes its identity.
class PropertyHolder final : public Construction::Property {
 public:
  // A null value throws ModuleError 0xFA000B.
  PropertyHolder(const Name& name, OwnedUnit value);

  const Name& GetName() const override { return name_; }
  const View::Unit& GetValue() const override { return *value_; }
  Construction::Unit& GetValue() override { return *value_; }

 private:
  Name name_;
  OwnedUnit value_;
};

}  // namespace Por
