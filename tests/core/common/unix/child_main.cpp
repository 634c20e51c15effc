// A process of its own for tests of what is settled once per process. The first argument names
// what to do; "went on" is printed when the process lives on.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include "core/common/unix/mutex.h"
#include "core/common/unix/program_path.h"
#include "core/common/unix/safe_assert.h"
#include "core/common/unix/safe_close.h"
#include "core/common/unix/trace.h"

// Visible functions, so that the stack names them.
namespace Probe {

[[gnu::noinline]] void Violate(const char* expression) {
  Common::SafeAssert(expression, "probe.cpp", 7);
  asm volatile("" : : : "memory");  // no tail call
}

[[gnu::noinline]] int CountAndFail(int& evaluations) {
  return ++evaluations * 0;
}

}  // namespace Probe

namespace {

// Prints what is traced, one line each; line feeds within as "|".
class PrintingSink : public Common::TraceSink {
 public:
  enum class Then { kReturn, kAssert, kThrow };

  explicit PrintingSink(Then then) : then_(then) {}
  unsigned int GetLevel() const override { return 0; }
  void Write(unsigned int, std::uint32_t, std::uint32_t, const char*) override {
    std::printf("narrow\n");
  }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char16_t* text) override {
    std::printf("%u %u %u ", level, module, code);
    for (; *text != 0; ++text) std::printf("%c", *text == '\n' ? '|' : static_cast<char>(*text));
    std::printf("\n");
    if (then_ == Then::kAssert) Probe::Violate("in sink");
    if (then_ == Then::kThrow) throw 7;
  }

 private:
  const Then then_;
};

void UnlockFromElsewhere() {
  Common::Mutex mutex;
  mutex.Lock();
  std::thread([&mutex] { mutex.Unlock(); }).join();
  mutex.Unlock();
}

void CloseTwice() {
  const int descriptor = open("/dev/null", O_RDONLY);
  std::printf("%d\n", Common::SafeClose(descriptor));
  const int result = Common::SafeClose(descriptor);
  std::printf("%d %d\n", result, errno == EBADF);
}

void CloseFullFile() {
  std::FILE* const file = std::fopen("/dev/full", "w");
  std::fputs("text", file);
  const int result = Common::SafeFClose(file);
  std::printf("%d %d\n", result, errno == ENOSPC);
}

// As another static initialiser sees it, whichever of the two files starts first.
const std::string path_at_start = Common::GetProgramPath();

// `argument` is null when there is none.
int Run(std::string_view what, const char* argument) {
  if (what == "assert") {
    Probe::Violate(argument);
  } else if (what == "macro") {
    int evaluations = 0;
    errno = EDOM;
    SAFE_ASSERT(Probe::CountAndFail(evaluations) == 1);
    std::printf("%d %d\n", evaluations, errno == EDOM);
    SAFE_ASSERT(evaluations == 1);
  } else if (what == "error") {
    Common::SafeAssertError(ENOENT, "probe.cpp", 9, argument);
  } else if (what == "twice") {
    Probe::Violate("first");
    setenv("VELORIN_SAFE_ASSERT", "abort", 1);
    Probe::Violate("second");
  } else if (what == "at-exit") {
    std::atexit([] { Probe::Violate("late"); });
    Probe::Violate("early");
  } else if (what == "event" || what == "event-asserts" || what == "event-throws") {
    using Then = PrintingSink::Then;
    static PrintingSink sink(what == "event-asserts"  ? Then::kAssert
                             : what == "event-throws" ? Then::kThrow
                                                      : Then::kReturn);
    Common::RegisterTraceSink(sink);
    Probe::Violate(argument);
  } else if (what == "unlock") {
    UnlockFromElsewhere();
  } else if (what == "close-twice") {
    CloseTwice();
  } else if (what == "close-full") {
    CloseFullFile();
  } else if (what == "path") {
    const std::string path = Common::GetProgramPath();
    std::printf("%s\n%s\n%d\n", path.c_str(), Common::GetProgramName().c_str(),
                path == path_at_start);
  } else if (what == "path-in-removed-folder") {
    std::filesystem::remove(std::filesystem::current_path());
    std::printf("%s\n%s\n", Common::GetProgramPath().c_str(), Common::GetProgramName().c_str());
  } else {
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  alarm(60);
  if (argc < 2) return 2;
  const int result = Run(argv[1], argc > 2 ? argv[2] : nullptr);
  if (result == 0) std::printf("went on\n");
  return result;
}
