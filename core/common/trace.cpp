#include "core/common/trace.h"

#include "core/common/error_render.h"

namespace Common {

void Trace(unsigned int level, const Error& error) noexcept {
  if (!IsTraced(level)) return;
  try {
    String text;
    RenderChain(text, error.GetRecord(), level);
    const std::uint32_t code = error.GetCode();
    Trace(level, code >> 16, code & 0xFFFF, text.c_str());
  } catch (...) {
    // Whoever traces a failure must go on.
  }
}

}  // namespace Common
