#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/name.h"

// What any unit can carry beside its value: marks, each a name and a unit. A name may occur several
// times with different values. Order: by name (strcmp), then by Compare of the values.

namespace Por::View {

class Trait : public Common::NonCopyable {
 public:
  virtual ~Trait() = default;
  virtual const Name& GetName() const = 0;
  virtual const Unit& GetValue() const = 0;
};

class Traits : public Common::NonCopyable {
 public:
  virtual ~Traits() = default;
  // In order, until the processor returns true.
  virtual void ForEach(ItemProcessor<const Trait>& processor) const = 0;
  virtual void ForEach(const Name& name, ItemProcessor<const Trait>& processor) const = 0;
};

}  // namespace Por::View

namespace Por::Modification {

class Traits : public View::Traits {};

}  // namespace Por::Modification

namespace Por::Construction {

class Traits : public Modification::Traits {
 public:
  // Takes the trait in all cases; a trait equal in name and value to a stored one is destroyed.
  // Null throws ModuleError 0xFA000B.
  virtual void Add(OwnedTrait trait) = 0;
  // Destroys all traits of that name and returns how many they were.
  virtual unsigned int Remove(const Name& name) = 0;
};

}  // namespace Por::Construction
