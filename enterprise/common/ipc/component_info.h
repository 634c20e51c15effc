#pragma once

#include <cstdint>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/non_copyable.h"

namespace Core {

// Returned for a method that an interface doesn't have. The code has no message.
inline constexpr std::uint32_t kNoMethodCode = 0xB9000C;

// What the description of an interface tells of each method; what it means isn't known here.
struct MethodRecord {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
};

// The description of one interface of the services.
class ComponentInfo : public Common::NonCopyable {
 public:
  virtual std::uint32_t GetComponentId() const = 0;
  virtual std::uint32_t GetFirstConstant() const = 0;  // 1 in all interfaces
  // `index` runs from 1 to the number of methods. Any other one: kNoMethodCode, `out` stays.
  virtual Common::Error GetMethodInfo(int index, MethodRecord& out) const = 0;
  virtual std::uint32_t GetVersion() const = 0;
  virtual std::uint32_t GetSecondConstant() const = 0;  // 1 in all interfaces
  virtual std::uint32_t GetThirdConstant() const = 0;   // 1 in all interfaces
  virtual ~ComponentInfo() = default;
};

// Enters a component in place of an earlier one of its id. It is borrowed until the end of main.
// Threads: any, up to the end of main. Usable in static constructors of any order.
void RegisterComponent(ComponentInfo* component);

// The component of an id, null for none. Threads: any, up to the end of main: the registry goes at
// exit.
ComponentInfo* FindComponent(std::uint32_t component_id);

// Specialised by the folder that knows the interface:
//
//   static constexpr std::uint32_t kVersion
//   static constexpr int kMethodCount
//   static constexpr Common::LineTag kNoMethodTag   of the error of GetMethodInfo
template <std::uint32_t Id>
struct ComponentFacts;

// The description of the interface with the number `Id`.
template <std::uint32_t Id>
class ComponentInfoImpl final : public ComponentInfo {
 public:
  // Made when it is first asked for, destroyed at exit.
  static ComponentInfoImpl& GetInstance() {
    static ComponentInfoImpl instance;
    return instance;
  }

  std::uint32_t GetComponentId() const override { return Id; }
  std::uint32_t GetFirstConstant() const override { return 1; }
  Common::Error GetMethodInfo(int index, MethodRecord& out) const override {
    if (index < 1 || index > ComponentFacts<Id>::kMethodCount) {
      return Common::Error(kNoMethodCode, ComponentFacts<Id>::kNoMethodTag);
    }
    out = MethodRecord{0, 2};
    return Common::Error();
  }
  std::uint32_t GetVersion() const override { return ComponentFacts<Id>::kVersion; }
  std::uint32_t GetSecondConstant() const override { return 1; }
  std::uint32_t GetThirdConstant() const override { return 1; }

 private:
  ComponentInfoImpl() = default;
};

}  // namespace Core
