#pragma once

#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/number_text.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit_blob.h"
#include "fuzz/fuzz_target.h"
#include "tests/support/text.h"

// Units as texts that can be compared.

namespace Fuzz {

// The binary form of the unit; "" for none.
inline std::string ToBytes(const Por::View::Unit* unit) {
  if (unit == nullptr) return std::string();
  std::vector<unsigned char> bytes;
  Por::Util::WriteUnitBlob(*unit, bytes);
  return std::string(bytes.begin(), bytes.end());
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
