#pragma once

#include <functional>
#include <map>
#include <string_view>

#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "enterprise/common/por/unit_constructor.h"

namespace Por {

// Writes the prototype of a class, its root's End included.
using PrototypeDefinition = void (*)(const Util::UnitConstructor& make);

// The process's classes of plain objects: what defines each of them, by its name.
//
// Static initialisers enter their classes, so the context is made by its first user and never
// destroyed. Threads: entries are made before main, or while no other thread asks.
class ConstructionDynamicContext : public Common::NonCopyable {
 public:
  // By 16-bit characters, then by length.
  using Entries = std::map<Common::String, PrototypeDefinition, std::less<>>;

  static ConstructionDynamicContext& Get();

  // A definition that is there under this name is replaced.
  void Enter(Common::String name, PrototypeDefinition definition);
  // Null if there is none.
  PrototypeDefinition Find(std::u16string_view name) const;
  const Entries& GetEntries() const { return entries_; }

 private:
  ConstructionDynamicContext() = default;
  ~ConstructionDynamicContext() = default;

  Entries entries_;
};

// A new unit as `definition` writes it.
OwnedUnit MakePrototype(PrototypeDefinition definition, const Construction::UnitFactory& factory);

}  // namespace Por
