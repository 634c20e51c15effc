#pragma once

#include "core/common/error.h"
#include "core/common/message_table.h"

namespace Por {

// Failure of the unit model: a Common::Error under a type of its own, so that a handler may tell it
// from others. A handler for Common::Error catches it too.
class ModuleError : public Common::Error {
 public:
  // A traced record.
  ModuleError(std::uint32_t code, const char16_t* text, const Common::LineTag& tag) noexcept
      : Common::Error(Common::MakeTracedError(code, text, tag)) {}
  explicit ModuleError(const Common::Error& error) noexcept : Common::Error(error) {}
};

// Codes of the unit model; the messages that go with them are named at their use.
inline constexpr std::uint32_t kPorInternal = 0xFA0001;
inline constexpr std::uint32_t kPorTypeMismatch = 0xFA000A;
inline constexpr std::uint32_t kPorNullUnit = 0xFA000B;
inline constexpr std::uint32_t kPorPropertyNotFound = 0xFA000D;
inline constexpr std::uint32_t kPorPattern = 0xFA000E;
inline constexpr std::uint32_t kPorOutOfRange = 0xFA000F;
inline constexpr std::uint32_t kPorAssignProperties = 0xFA0010;
inline constexpr std::uint32_t kPorAssignTypes = 0xFA0011;
inline constexpr std::uint32_t kPorAssignTraits = 0xFA0012;
inline constexpr std::uint32_t kPorArrayElementNotFound = 0xFA0016;
inline constexpr std::uint32_t kPorBranchNotFound = 0xFA001B;
inline constexpr std::uint32_t kPorTraitNotUnique = 0xFA001C;
inline constexpr std::uint32_t kPorTraitNotFound = 0xFA001D;
inline constexpr std::uint32_t kPorElementNotFound = 0xFA0020;
inline constexpr std::uint32_t kPorUnitCorrupted = 0xFA0021;

}  // namespace Por
