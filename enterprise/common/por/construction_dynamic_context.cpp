#include "enterprise/common/por/construction_dynamic_context.h"

#include <utility>

#include "enterprise/common/por/unit.h"

namespace Por {

ConstructionDynamicContext& ConstructionDynamicContext::Get() {
  static ConstructionDynamicContext& context = *new ConstructionDynamicContext;
  return context;
}

void ConstructionDynamicContext::Enter(Common::String name, PrototypeDefinition definition) {
  entries_.insert_or_assign(std::move(name), definition);
}

PrototypeDefinition ConstructionDynamicContext::Find(std::u16string_view name) const {
  const auto entry = entries_.find(name);
  return entry != entries_.end() ? entry->second : nullptr;
}

OwnedUnit MakePrototype(PrototypeDefinition definition, const Construction::UnitFactory& factory) {
  const Util::UnitConstructor make(factory);
  definition(make);
  return make.TakeResult();
}

}  // namespace Por
