#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/unit.h"

namespace Por {

// Walks down a tree by name, through composites and maps (Util::FindElement). Stands at a unit, or
// at the place where one is missing and then remembers the first name that was not found.
//
//   GetValue<unsigned int>(ConstDataAccessor(unit)["limits"]["count"].Get())
//
// A plain value; the tree is borrowed.
class ConstDataAccessor {
 public:
  explicit ConstDataAccessor(const View::Unit& unit) : unit_(&unit) {}

  ConstDataAccessor operator[](const Name& key) const;

  bool IsValid() const { return unit_ != nullptr; }
  // The unit. Throws as EnsureUnitIsValid.
  const View::Unit& Get() const {
    EnsureUnitIsValid();
    return *unit_;
  }
  // Throws ModuleError 0xFA0020 with the missing name when there is no unit here.
  void EnsureUnitIsValid() const;

 private:
  explicit ConstDataAccessor(const Name& missing) : unit_(nullptr), name_(missing) {}

  const View::Unit* unit_;
  Name name_;  // empty while there is a unit
};

}  // namespace Por
