#pragma once

#include "enterprise/common/por/owned_list.h"
#include "enterprise/common/por/traits.h"

namespace Por {

// The traits of an in-memory unit, sorted by name (strcmp), then by Compare of the values. No two
// entries compare equal. Takes memory with the first Add only.
//
// With NaN among the values no strict order exists; the search then still ends at some place
// between two entries, and such traits are all kept.
class TraitsHolder final : public Construction::Traits {
 public:
  TraitsHolder() = default;

  void ForEach(ItemProcessor<const View::Trait>& processor) const override;
  void ForEach(const Name& name, ItemProcessor<const View::Trait>& processor) const override;
  void Add(OwnedTrait trait) override;
  unsigned int Remove(const Name& name) override;

  // For whoever fills in the traits, in their order.
  Detail::OwnedList<View::Trait>& GetList() { return traits_; }

 private:
  // Index of the first trait whose name does not lie before `name`.
  std::size_t LowerBound(const Name& name) const;

  Detail::OwnedList<View::Trait> traits_;
};

}  // namespace Por
