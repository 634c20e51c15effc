#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/common/unix/trace.h"
#include "tests/support/text.h"

namespace TestSupport {

// Collects what is traced from `level` up while it lives, on all threads; lowers the threshold as
// far as that takes.
class TraceRecorder final : public Common::TraceSink {
 public:
  struct Line {
    unsigned int level;
    std::uint32_t module;
    std::uint32_t number;  // the code as it came, without its module
    std::uint32_t code;    // module and number as one
    std::string text;
    bool is_wide;  // traced as UTF-16
  };

  explicit TraceRecorder(unsigned int level = Common::kTraceDebug) : level_(level) {
    if (level < threshold_) Common::SetTraceThreshold(level);
    EXPECT_TRUE(Common::RegisterTraceSink(*this));
  }
  ~TraceRecorder() override {
    Common::UnregisterTraceSink(*this);
    Common::SetTraceThreshold(threshold_);
  }

  std::vector<Line> All() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  std::vector<Line> OfLevel(unsigned int level) const {
    const std::lock_guard lock(mutex_);
    std::vector<Line> lines;
    for (const Line& line : lines_) {
      if (line.level == level) lines.push_back(line);
    }
    return lines;
  }
  std::vector<Line> Errors() const { return OfLevel(Common::kTraceError); }
  // "LEVEL MODULE NUMBER" for each, the latter two hexadecimal, ended by a line feed.
  std::string Codes() const {
    std::ostringstream codes;
    for (const Line& line : All()) {
      codes << line.level << std::hex << ' ' << line.module << ' ' << line.number << std::dec
            << '\n';
    }
    return codes.str();
  }
  // The assertions with their places.
  std::vector<std::string> AssertionTexts() const {
    std::vector<std::string> texts;
    for (const Line& line : OfLevel(Common::kTraceCritical)) {
      if (line.text.rfind(kAssertion, 0) == 0) texts.push_back(line.text);
    }
    return texts;
  }
  // The expressions of the assertions.
  std::vector<std::string> Assertions() const {
    std::vector<std::string> expressions = AssertionTexts();
    for (std::string& text : expressions) {
      text = text.substr(kAssertion.size(), text.rfind(", file ") - kAssertion.size());
    }
    return expressions;
  }
  // Forgets what came so far.
  void Clear() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
  }

  unsigned int GetLevel() const override { return level_; }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char* text) override {
    Add({level, module, code, (module << 16) | code, text, false});
  }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char16_t* text) override {
    Add({level, module, code, (module << 16) | code, Utf8(text), true});
  }

 private:
  static constexpr std::string_view kAssertion = "Assertion failed: ";

  void Add(Line line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
  }

  const unsigned int level_;
  const unsigned int threshold_ = Common::GetTraceThreshold();
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

}  // namespace TestSupport
