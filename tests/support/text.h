#pragma once

#include <string>
#include <string_view>

#include "core/common/text.h"

namespace TestSupport {

// For comparing with literals and for messages.
inline std::string Utf8(std::u16string_view text) {
  std::string result;
  Common::ToUtf8(result, text.data(), text.size());
  return result;
}

}  // namespace TestSupport
