#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "tests/support/trace_recorder.h"

namespace Async::Testing {

// Assertions that are meant to come go to the trace only. Read at the first report.
[[maybe_unused]] inline const int assertions_to_trace = setenv("VELORIN_SAFE_ASSERT", "event", 1);

// Code of failures that the fakes make: no code of the framework.
inline constexpr std::uint32_t kFailure = 0x1230042;

inline Common::Error Failure(std::uint32_t code = kFailure) {
  return Common::Error(code, Common::LineTag{});
}

using TestSupport::TraceRecorder;

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

// Does something when it is dropped.
class JobWithAnEnd : public FakeJob {
 public:
  explicit JobWithAnEnd(std::function<void()> end, std::function<void()> in_cancel = {})
      : FakeJob(std::move(in_cancel)), end_(std::move(end)) {}
  ~JobWithAnEnd() override { end_(); }

 private:
  const std::function<void()> end_;
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
