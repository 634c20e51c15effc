#include "core/common/trace.h"

#include "core/common/error_render.h"

namespace Common {

void Trace(unsigned int level, const Error& error) {
  if (!IsTraced(level)) return;
  String text;
  RenderChain(text, error.GetRecord(), level);
  const std::uint32_t code = error.GetCode();
  Trace(level, code >> 16, code & 0xFFFF, text.c_str());
}

}  // namespace Common
