#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/number_text.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "fuzz/fuzz_target.h"
#include "tests/support/text.h"

// Units as texts that can be compared, and units compared.

namespace Fuzz {

// The binary form of the unit; "" for none.
inline std::string ToBytes(const Por::View::Unit* unit) {
  if (unit == nullptr) return std::string();
  std::vector<unsigned char> bytes;
  Por::Util::WriteUnitBlob(*unit, bytes);
  return std::string(bytes.begin(), bytes.end());
}

// Both null, or the same unit.
inline bool IsSame(const Por::SharedUnit& left, const Por::SharedUnit& right) {
  if (left == nullptr || right == nullptr) return left == right;
  if (Por::Util::UnitEqual(*left, *right)) return true;
  // A unit with a NaN equals nothing, not even its copy. Then the bytes decide.
  const Por::OwnedUnit copy = Por::Util::CopyUnit(*left, *Por::GetStaticUnitFactory());
  return !Por::Util::UnitEqual(*left, *copy) && ToBytes(left.get()) == ToBytes(right.get());
}
inline bool IsSame(const std::vector<Por::SharedUnit>& left,
                   const std::vector<Por::SharedUnit>& right) {
  return std::equal(
      left.begin(), left.end(), right.begin(), right.end(),
      [](const Por::SharedUnit& a, const Por::SharedUnit& b) { return IsSame(a, b); });
}

// What a call that gives a unit comes to: the unit's bytes, or its error. Nothing else may leave
// it.
template <class Call>
std::string Outcome(Call call) {
  try {
    const auto unit = call();
    return ToBytes(unit != nullptr ? &*unit : nullptr);
  } catch (const Common::Error& error) {
    Require(error.IsFailure(), "a failure has a code");
    return std::string("error ")
        .append(Common::NumberToHex(error.GetCode()))
        .append(" ")
        .append(TestSupport::Utf8(error.GetMessage()));
  }
}

}  // namespace Fuzz
