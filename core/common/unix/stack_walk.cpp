#include "core/common/unix/stack_walk.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

namespace Common {
namespace {

struct Free {
  void operator()(void* block) const { std::free(block); }
};

constexpr std::size_t kMaxLine = 4096;

int Width(std::string_view text) {
  return static_cast<int>(std::min<std::size_t>(text.size(), kMaxLine));
}

// `text` is "module(symbol+offset)rest"; parts may be missing.
void FormatFrame(char (&line)[kMaxLine + 1], char* text) {
  const std::string_view whole = text;
  // A module's path may hold parentheses, so the last ones count.
  const std::size_t open = whole.rfind('(');
  const std::size_t close = whole.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
    std::snprintf(line, sizeof line, "%-40s", text);
    return;
  }
  const std::string_view module = whole.substr(0, open);
  const std::string_view inside = whole.substr(open + 1, close - open - 1);
  const char* const rest = text + close + 1;
  const std::size_t plus = inside.rfind('+');
  const bool has_offset = plus != std::string_view::npos;
  const std::string_view offset = has_offset ? inside.substr(plus + 1) : std::string_view();

  // The demangler wants a terminated name.
  char* const symbol = text + open + 1;
  symbol[has_offset ? plus : inside.size()] = 0;
  const std::unique_ptr<char, Free> demangled(
      abi::__cxa_demangle(symbol, nullptr, nullptr, nullptr));
  std::snprintf(line, sizeof line,
                has_offset ? "%-30.*s ( %-40s  + %-6.*s) %s" : "%-30.*s ( %-40s    %-6.*s) %s",
                Width(module), module.data(), demangled != nullptr ? demangled.get() : symbol,
                Width(offset), has_offset ? offset.data() : "", rest);
}

}  // namespace

// Never inlined: it is frame 0.
[[gnu::noinline]] bool WalkStack(const StackWalkParameters& parameters) {
  const unsigned int limit =
      std::min<unsigned int>(parameters.max_frames, std::numeric_limits<int>::max());
  if (limit == 0) return false;
  void* few[64];
  std::unique_ptr<void*[]> many;
  if (limit > std::size(few)) {
    many.reset(new (std::nothrow) void*[limit]);
    if (many == nullptr) return false;
  }
  void** const addresses = many != nullptr ? many.get() : few;
  const int count = backtrace(addresses, static_cast<int>(limit));
  if (count <= 0) return false;
  const std::unique_ptr<char*, Free> texts(backtrace_symbols(addresses, count));
  if (texts == nullptr) return false;

  bool result = false;
  for (int frame = 0; frame < count; ++frame) {
    char line[kMaxLine + 1];
    FormatFrame(line, texts.get()[frame]);
    result = parameters.callback(static_cast<unsigned int>(frame), line, parameters.context);
    if (!result) break;
  }
  return result;
}

}  // namespace Common
