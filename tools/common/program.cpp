#include "tools/common/program.h"

#include <cstdio>
#include <new>

#include "core/common/error.h"
#include "platform/console/error_text.h"

namespace Tools {

void Tell(const char* program, const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s: %s\n", program, Platform::Console::MakePrintable(text).c_str());
}

int Fail(const char* program, const std::string& text) {
  Tell(program, text);
  return kFailed;
}

int RunCommand(const char* program, const std::function<void()>& command) {
  try {
    command();
  } catch (const Common::Error& error) {
    return Fail(program, Platform::Console::DescribeError(error));
  } catch (const CommandFailure& failure) {
    return Fail(program, failure.what());
  } catch (const std::bad_alloc&) {
    return Fail(program, "Not enough memory to complete the operation.");
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) return Fail(program, kOutputFailure);
  return 0;
}

}  // namespace Tools
