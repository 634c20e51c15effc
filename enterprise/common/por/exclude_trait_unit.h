#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit.h"

// Decorators that hide traits: units of the reading face that show another unit without copying it.
// What is shown is borrowed: it must outlive the decorator, stay in place and not change meanwhile.
// They decorate each other. Threads: as many readers as the shown unit allows.

namespace Por::View {

// Shows `inner` as it is.
class DelegatingUnit : public Unit {
 public:
  explicit DelegatingUnit(const Unit& inner) : inner_(&inner) {}
  void Accept(UnitReader& reader) const override { inner_->Accept(reader); }
  const Traits& GetTraits() const override { return inner_->GetTraits(); }

 private:
  const Unit* inner_;
};

// Shows the traits of other names than `name` (`exclude`), or those of that name only.
class SieveTraits final : public Traits {
 public:
  SieveTraits(const Traits& inner, const Name& name, bool exclude)
      : inner_(&inner), name_(name), exclude_(exclude) {}
  void ForEach(ItemProcessor<const Trait>& processor) const override;
  void ForEach(const Name& name, ItemProcessor<const Trait>& processor) const override;

 private:
  const Traits* inner_;
  Name name_;
  bool exclude_;
};

// Shows the value of `inner` whole, and the traits through a sieve. The address of the shown unit's
// traits is kept.
class SieveTraitsUnit : public DelegatingUnit {
 public:
  SieveTraitsUnit(const Unit& inner, const Name& name, bool exclude)
      : DelegatingUnit(inner), traits_(inner.GetTraits(), name, exclude) {}
  const Traits& GetTraits() const override { return traits_; }

 private:
  SieveTraits traits_;
};

// Hides the traits of one name.
class ExcludeTraitUnit final : public SieveTraitsUnit {
 public:
  ExcludeTraitUnit(const Unit& inner, const Name& name) : SieveTraitsUnit(inner, name, true) {}
};

}  // namespace Por::View
