#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>

#include "core/common/string.h"
#include "core/common/unix/trace.h"

namespace Dml {

// Collects what is traced while it lives, from the debug level up.
class TraceLog final : public Common::TraceSink {
 public:
  TraceLog() {
    Common::SetTraceThreshold(Common::kTraceDebug);
    EXPECT_TRUE(Common::RegisterTraceSink(*this));
  }
  ~TraceLog() {
    Common::UnregisterTraceSink(*this);
    Common::SetTraceThreshold(threshold_);
  }
  unsigned int GetLevel() const override { return Common::kTraceDebug; }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code, const char*) override {
    Note(level, module, code, {});
  }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char16_t* text) override {
    Note(level, module, code, text);
  }

  std::string lines;
  Common::String last_text;

 private:
  void Note(unsigned int level, std::uint32_t module, std::uint32_t code, Common::String last) {
    char line[64];
    std::snprintf(line, sizeof line, "%u %x %x\n", level, module, code);
    lines += line;
    last_text = std::move(last);
  }
  const unsigned int threshold_ = Common::GetTraceThreshold();
};

}  // namespace Dml
