#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/unit.h"

namespace Por {

// The changing counterpart of ConstDataAccessor: a borrowed unit, or none. A missing one stays
// missing on the way down and keeps no name.
class DataAccessor {
 public:
  DataAccessor() = default;
  explicit DataAccessor(Construction::Unit* unit) : unit_(unit) {}

  void Set(Construction::Unit* unit) { unit_ = unit; }
  bool IsValid() const { return unit_ != nullptr; }
  DataAccessor operator[](const Name& key) const;
  // Throws ModuleError 0xFA0016 when there is no unit here.
  Construction::Unit& Get() const;

 private:
  Construction::Unit* unit_ = nullptr;
};

}  // namespace Por
