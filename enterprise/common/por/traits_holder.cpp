#include "enterprise/common/por/traits_holder.h"

#include <utility>

#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_operations.h"

namespace Por {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/traits_holder"};

// Negative, 0 or positive.
int CompareTraits(const View::Trait& a, const View::Trait& b) {
  const int names = a.GetName().Compare(b.GetName());
  return names != 0 ? names : Util::Compare(a.GetValue(), b.GetValue());
}

}  // namespace

void TraitsHolder::ForEach(ItemProcessor<const View::Trait>& processor) const {
  for (std::size_t i = 0; i < traits_.GetSize(); ++i) {
    if (processor.Process(*traits_[i])) return;
  }
}

void TraitsHolder::ForEach(const Name& name, ItemProcessor<const View::Trait>& processor) const {
  for (std::size_t i = LowerBound(name); i < traits_.GetSize() && traits_[i]->GetName() == name;
       ++i) {
    if (processor.Process(*traits_[i])) return;
  }
}

void TraitsHolder::Add(OwnedTrait trait) {
  if (trait == nullptr) {
    throw ModuleError(kPorNullUnit, Common::GetMessageText(Common::MessageRow::PorNullUnit),
                      kSource.At("Add", 109));
  }
  std::size_t low = 0;
  std::size_t high = traits_.GetSize();
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    const int order = CompareTraits(*trait, *traits_[middle]);
    if (order == 0) return;
    if (order < 0) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  traits_.Insert(low, std::move(trait));
}

unsigned int TraitsHolder::Remove(const Name& name) {
  const std::size_t first = LowerBound(name);
  std::size_t last = first;
  while (last < traits_.GetSize() && traits_[last]->GetName() == name) ++last;
  traits_.Erase(first, last);
  return static_cast<unsigned int>(last - first);
}

std::size_t TraitsHolder::LowerBound(const Name& name) const {
  std::size_t low = 0;
  std::size_t high = traits_.GetSize();
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    if (traits_[middle]->GetName() < name) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

}  // namespace Por
