#include "enterprise/common/por/exclude_trait_unit.h"

namespace Por::View {

namespace {

// Passes on the traits whose name, compared with the filter's by the predicate, holds.
class FilteringTraitProcessor final : public ItemProcessor<const Trait> {
 public:
  using Predicate = bool (*)(const Name& trait, const Name& filter);

  FilteringTraitProcessor(const Name& name, bool exclude, ItemProcessor<const Trait>& processor)
      : name_(name), predicate_(exclude ? Differ : Equal), processor_(processor) {}

  bool Process(const Trait& trait) override {
    return predicate_(trait.GetName(), name_) && processor_.Process(trait);
  }

 private:
  static bool Differ(const Name& trait, const Name& filter) { return !(trait == filter); }
  static bool Equal(const Name& trait, const Name& filter) { return trait == filter; }

  const Name& name_;
  Predicate predicate_;
  ItemProcessor<const Trait>& processor_;
};

}  // namespace

void SieveTraits::ForEach(ItemProcessor<const Trait>& processor) const {
  FilteringTraitProcessor filter(name_, exclude_, processor);
  inner_->ForEach(filter);
}

void SieveTraits::ForEach(const Name& name, ItemProcessor<const Trait>& processor) const {
  FilteringTraitProcessor filter(name_, exclude_, processor);
  inner_->ForEach(name, filter);
}

}  // namespace Por::View
