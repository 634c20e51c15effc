#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/unit.h"

// What a composite holds: a name and a unit.

namespace Por::View {

class Property : public Common::NonCopyable {
 public:
  virtual ~Property() = default;
  virtual const Name& GetName() const = 0;
  virtual const Unit& GetValue() const = 0;
};

}  // namespace Por::View

namespace Por::Modification {

class Property : public View::Property {
 public:
  using View::Property::GetValue;
  virtual Unit& GetValue() = 0;
};

}  // namespace Por::Modification

namespace Por::Construction {

class Property : public Modification::Property {
 public:
  using View::Property::GetValue;
  Unit& GetValue() override = 0;
};

}  // namespace Por::Construction
