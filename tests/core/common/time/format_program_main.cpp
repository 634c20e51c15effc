#include <sys/resource.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "core/common/time/time_format.h"
#include "core/common/unix/trace.h"

namespace {

struct Printer final : Common::TraceSink {
  unsigned int GetLevel() const override { return Common::kTraceDebug; }
  void Write(unsigned int level, std::uint32_t, std::uint32_t, const char* text) override {
    traced += std::to_string(level).append(" ").append(text).append("\n");
  }
  void Write(unsigned int, std::uint32_t, std::uint32_t, const char16_t*) override {}

  std::string traced;
};

std::unique_ptr<Common::TimeFormat> Create() {
  return Common::TimeFormat::Create(0, 2);
}

// As long as no file can be opened.
std::unique_ptr<Common::TimeFormat> CreateWithoutFiles() {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t before = std::exchange(limit.rlim_cur, 0);
  setrlimit(RLIMIT_NOFILE, &limit);
  auto format = Create();
  limit.rlim_cur = before;
  setrlimit(RLIMIT_NOFILE, &limit);
  return format;
}

// Formats and parses, and prints what came of it.
void Try(Common::TimeFormat& format) {
  Common::DateTime value = Common::DateTime::Now();
  Common::String text = u"old";
  const std::uint32_t length = format.Format(value, text);
  const char* const formatted = length != text.size() ? "wrong" : length != 0 ? "text" : "nothing";
  const int result = format.Parse(length != 0 ? text : u"1/1/20, 1:00:00 AM", value);
  std::printf("%s %d %s\n", formatted, result, value.IsValid() ? "valid" : "invalid");
}

}  // namespace

// Tries two formats, and prints what was traced. With an argument the first one is made without
// files, and without a trace.
int main(int argc, char**) {
  auto first = argc > 1 ? CreateWithoutFiles() : nullptr;
  Printer printer;
  Common::RegisterTraceSink(printer);
  if (first == nullptr) first = Create();
  Try(*first);
  Try(*Create());
  std::fputs(printer.traced.c_str(), stdout);
  Common::UnregisterTraceSink(printer);
}
