#include "platform/store/consolidate_unit.h"

#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visit_value.h"

namespace Platform::Store {

namespace {

using Factory = Por::Construction::UnitFactory;

bool IsNil(const Por::View::Unit& unit) {
  return Por::Util::GetValueTypeIndex(unit) == Por::kNilIndex;
}

constexpr char kKeyTrait[] = "PrimaryKey";

// All of `source` but its key if `skips_key`.
void AddTraits(Por::Construction::Unit& unit, const Por::View::Unit& source, bool skips_key,
               const Factory& factory) {
  auto add = Por::MakeProcessor<const Por::View::Trait>([&](const Por::View::Trait& trait) {
    if (skips_key && trait.GetName() == kKeyTrait) return;
    Por::Util::AddTrait(unit, trait.GetName(), Por::Util::CopyUnit(trait.GetValue(), factory),
                        factory);
  });
  source.GetTraits().ForEach(add);
}

// `given` in place of `stored`. Neither is nil, and they are no two composites.
Por::OwnedUnit Replace(const Por::View::Unit& stored, const Por::View::Unit& given,
                       const Factory& factory) {
  Por::OwnedUnit result = Por::Util::CopyUnit(given, factory);
  AddTraits(*result, stored, Por::Util::HasTrait(given, kKeyTrait), factory);
  return result;
}

void ConsolidateComposites(Por::Construction::Unit& stored, const Por::View::Unit& given,
                           const Factory& factory);

void ConsolidateProperty(Por::Construction::Unit& stored, const Por::View::Property& given,
                         const Factory& factory) {
  const Por::View::Unit& value = given.GetValue();
  Por::Construction::Property* const known = Por::Util::FindProperty(stored, given.GetName());
  if (known != nullptr && IsNil(value)) return;
  if (known == nullptr || IsNil(known->GetValue())) {
    Por::Util::AddPropertyCopy(stored, given.GetName(), value, factory);
  } else if (Por::Util::IsComposite(known->GetValue()) && Por::Util::IsComposite(value)) {
    ConsolidateComposites(known->GetValue(), value, factory);
  } else {
    Por::Util::AddProperty(stored, given.GetName(), Replace(known->GetValue(), value, factory),
                           factory);
  }
}

void ConsolidateComposites(Por::Construction::Unit& stored, const Por::View::Unit& given,
                           const Factory& factory) {
  if (Por::Util::HasTrait(given, kKeyTrait)) stored.GetTraits().Remove(kKeyTrait);
  AddTraits(stored, given, false, factory);
  auto add = Por::MakeProcessor<const Por::View::Property>(
      [&](const Por::View::Property& property) { ConsolidateProperty(stored, property, factory); });
  Por::Util::Detail::VisitValue<Por::View::CompositeValue>(
      given, [&](const Por::View::CompositeValue& composite) { composite.ForEach(add); });
}

}  // namespace

Por::OwnedUnit ConsolidateUnit(Por::OwnedUnit stored, const Por::View::Unit& given,
                               const Factory& factory) {
  if (IsNil(given)) return stored;
  if (IsNil(*stored)) return Por::Util::CopyUnit(given, factory);
  if (!Por::Util::IsComposite(*stored) || !Por::Util::IsComposite(given)) {
    return Replace(*stored, given, factory);
  }
  ConsolidateComposites(*stored, given, factory);
  return stored;
}

}  // namespace Platform::Store
