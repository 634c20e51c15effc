#pragma once

#include <utility>
#include <vector>

#include "core/common/non_copyable.h"

namespace Common {

// An object that can be asked for further interfaces by name, across library borders and without
// type information. The names are fixed texts; an interface that is found so has its name in a
// constant `kInterfaceName`.
class DynamicCaster {
 public:
  virtual ~DynamicCaster() = default;
  // The interface as a pointer of its own type, borrowed from the object; null for a null name and
  // for one that the object doesn't have.
  virtual void* GetInterface(const char* type_name) = 0;
};

// Finds what the object itself entered. Most objects enter nothing and pay nothing.
class DynamicCasterImpl : public DynamicCaster, public NonCopyable {
 public:
  void* GetInterface(const char* type_name) override;

 protected:
  // Enters `pointer` in place of an earlier one of that name. The name is static text, not owned.
  void RegisterInterface(const char* type_name, void* pointer);

 private:
  void** Find(const char* type_name);

  std::vector<std::pair<const char*, void*>> interfaces_;
};

// The interface of an object, null if it has none.
template <class Interface>
Interface* QueryInterface(DynamicCaster& object) {
  return static_cast<Interface*>(object.GetInterface(Interface::kInterfaceName));
}

}  // namespace Common
