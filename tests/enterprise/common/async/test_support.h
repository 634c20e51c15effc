#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/text.h"
#include "core/common/unix/trace.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"

namespace Async::Testing {

// Code of failures that the fakes make: no code of the framework.
inline constexpr std::uint32_t kFailure = 0x1230042;

inline Common::Error Failure(std::uint32_t code = kFailure) {
  return Common::Error(code, Common::LineTag{});
}

inline std::string Narrow(const Common::String& text) {
  std::string out;
  Common::ToUtf8(out, text.data(), text.size());
  return out;
}

// Collects what is traced while it lives, assertions included.
class TraceRecorder final : public Common::TraceSink {
 public:
  struct Line {
    unsigned int level;
    std::uint32_t code;  // module and code as one
    std::string text;
  };

  TraceRecorder() { EXPECT_TRUE(Common::RegisterTraceSink(*this)); }
  ~TraceRecorder() { Common::UnregisterTraceSink(*this); }

  unsigned int GetLevel() const override { return Common::kTraceDebug; }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char* text) override {
    Add(level, module, code, text);
  }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char16_t* text) override {
    Add(level, module, code, Narrow(text));
  }

  std::vector<Line> Errors() const { return OfLevel(Common::kTraceError); }
  std::vector<Line> OfLevel(unsigned int level) const {
    const std::lock_guard lock(mutex_);
    std::vector<Line> lines;
    for (const Line& line : lines_) {
      if (line.level == level) lines.push_back(line);
    }
    return lines;
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
      const std::size_t size = std::string(kAssertion).size();
      text = text.substr(size, text.rfind(", file ") - size);
    }
    return expressions;
  }

 private:
  void Add(unsigned int level, std::uint32_t module, std::uint32_t code, std::string text) {
    const std::lock_guard lock(mutex_);
    lines_.push_back({level, (module << 16) | code, std::move(text)});
  }

  static constexpr char kAssertion[] = "Assertion failed: ";

  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

// Counts the calls to Cancel and does something inside them.
class FakeJob : public BaseJob {
 public:
  explicit FakeJob(std::function<void()> in_cancel = {}) : in_cancel_(std::move(in_cancel)) {}

  void Cancel() override {
    ++cancels;
    if (in_cancel_) in_cancel_();
  }

  int cancels = 0;

 private:
  std::function<void()> in_cancel_;
};

class FakeAction : public Action {
 public:
  using Body = std::function<std::shared_ptr<Job>(ActionHandler&)>;

  explicit FakeAction(Body body) : body_(std::move(body)) {}

  std::shared_ptr<Job> Perform(ActionHandler& handler) override {
    ++performs;
    return body_(handler);
  }

  int performs = 0;

 private:
  Body body_;
};

class FakeHandler : public ActionHandler {
 public:
  void Completed(Common::Error result) override {
    results.push_back(std::move(result));
    if (in_completed) in_completed();
  }

  std::vector<Common::Error> results;
  std::function<void()> in_completed;
};

}  // namespace Async::Testing
