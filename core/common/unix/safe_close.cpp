#include "core/common/unix/safe_close.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace Common {
namespace {

enum class Mode {
  kAbort,  // zero, and so in force for calls before this file's initialiser
  kQuiet,
  kTrap,
};

Mode ReadMode() {
  const char* const value = std::getenv("VELORIN_SAFE_CLOSE");
  if (value == nullptr) return Mode::kAbort;
  if (std::strstr(value, "break") != nullptr) return Mode::kTrap;
  if (std::strstr(value, "abort") != nullptr) return Mode::kAbort;
  return Mode::kQuiet;
}

const Mode mode = ReadMode();

// The functions of the C library itself, past whatever stands before them in the program. Null if
// they can't be found.
struct RealFunctions {
  int (*close)(int) = nullptr;
  int (*fclose)(std::FILE*) = nullptr;
};

#if defined(__SANITIZE_THREAD__)
#define OBJPROBE_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OBJPROBE_THREAD_SANITIZER
#endif
#endif

const RealFunctions& GetRealFunctions() {
  static const RealFunctions functions = [] {
    RealFunctions found;
#ifdef OBJPROBE_THREAD_SANITIZER
    // The thread sanitizer stands before the C library to learn which descriptors are closed; past
    // it, it takes the next use of the number for a race with the former one.
    found.close = &::close;
    found.fclose = &std::fclose;
    return found;
#endif
    if (void* const library = dlopen("libc.so.6", RTLD_LAZY)) {
      found.close = reinterpret_cast<int (*)(int)>(dlsym(library, "close"));
      found.fclose = reinterpret_cast<int (*)(std::FILE*)>(dlsym(library, "fclose"));
    }
    return found;
  }();
  return functions;
}

// Returns when a debugger goes on behind the trap.
void Trap() {
  std::raise(SIGTRAP);
}

int ReportMissing() {
  if (mode != Mode::kTrap) std::abort();
  Trap();
  errno = ENOSYS;
  return -1;
}

void ReportMisuse() {
  const int saved = errno;
  switch (mode) {
    case Mode::kAbort:
      std::abort();
    case Mode::kTrap:
      Trap();
      break;
    case Mode::kQuiet:
      break;
  }
  errno = saved;
}

}  // namespace

int SafeClose(int descriptor) noexcept {
  const auto real = GetRealFunctions().close;
  if (real == nullptr) return ReportMissing();
  const int result = real(descriptor);
  if (result != 0 && errno == EBADF) ReportMisuse();
  return result;
}

int SafeFClose(std::FILE* file) noexcept {
  const auto real = GetRealFunctions().fclose;
  if (real == nullptr) return ReportMissing();
  const int result = real(file);
  if (result != 0) ReportMisuse();
  return result;
}

}  // namespace Common
