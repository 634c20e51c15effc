#include <cstdio>
#include <string>

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

}  // namespace

// Formats and parses, prints what came of it and what was traced.
int main() {
  Printer printer;
  Common::RegisterTraceSink(printer);
  const auto format = Common::TimeFormat::Create(0, 2);
  Common::DateTime value = Common::DateTime::Now();
  Common::String text = u"old";
  const std::uint32_t length = format->Format(value, text);
  const int result = format->Parse(u"1/1/20, 1:00:00 AM", value);
  std::printf("%u '%s' %d %s\n%s", length, text.empty() ? "" : "text", result,
              value.IsValid() ? "valid" : "invalid", printer.traced.c_str());
  Common::UnregisterTraceSink(printer);
}
