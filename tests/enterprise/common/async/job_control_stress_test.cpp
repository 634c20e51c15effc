#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <semaphore>
#include <thread>
#include <utility>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/synchronizer.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::FakeAction;
using Testing::FakeJob;
using Testing::TraceRecorder;

// Performs what a thread of its own completes, at once or after the caller has gone on.
class CompletedElsewhere : public FakeAction {
 public:
  CompletedElsewhere()
      : FakeAction([this](ActionHandler& handler) {
          handler_ = &handler;
          given_.release();
          return std::make_shared<FakeJob>([this] { canceled_ = true; });
        }) {}
  ~CompletedElsewhere() override {
    handler_ = nullptr;
    given_.release();
  }

 private:
  void Loop() {
    for (;;) {
      given_.acquire();
      if (handler_ == nullptr) return;
      handler_->Completed(canceled_.exchange(false) ? canceled_error.Get() : Common::Error());
    }
  }

  std::binary_semaphore given_{0};
  ActionHandler* handler_ = nullptr;
  std::atomic<bool> canceled_{false};
  std::jthread thread_{[this] { Loop(); }};
};

class CountingSynchronizer : public Synchronizer {
 public:
  void Completed(Common::Error result) override {
    ++told;
    Synchronizer::Completed(std::move(result));
  }
  std::atomic<int> told{0};
};

// Runs on one thread, ends on a second, cancels on two more. For the thread sanitizer above all;
// the orders themselves are explored one by one elsewhere.
TEST(JobControlStress, EveryRunIsToldOnce) {
  TraceRecorder traces;
  JobControl control;
  std::atomic<bool> stop{false};
  {
    CompletedElsewhere action;
    const auto cancel = [&] {
      for (int turn = 0; !stop; ++turn) {
        if (turn % 8 == 0) control.Cancel();
        std::this_thread::yield();
      }
    };
    std::jthread first(cancel);
    std::jthread second(cancel);
    for (int run = 0; run < 3000; ++run) {
      CountingSynchronizer handler;
      control.Run(action, handler, nullptr);
      const Common::Error result = handler.Wait(nullptr);
      EXPECT_TRUE(!result.IsFailure() || result.HoldsCode(kCanceledCode));
      EXPECT_EQ(handler.told, 1);
    }
    stop = true;
  }
  EXPECT_TRUE(control.State() == STATE_BEGIN || control.State() == STATE_CANCEL_SCHEDULED_WAIT_ALL);
  EXPECT_TRUE(traces.Assertions().empty());
}

// The thread that told the handler is still on its way out of both.
TEST(JobControlStress, TheControlAndItsHandlerMayDieRightAfterTheWait) {
  TraceRecorder traces;
  CompletedElsewhere action;
  for (int run = 0; run < 2000; ++run) {
    auto control = std::make_unique<JobControl>();
    auto handler = std::make_unique<Synchronizer>();
    control->Run(action, *handler, nullptr);
    EXPECT_EQ(handler->Wait(nullptr).GetCode(), 0u);
    handler.reset();
    control.reset();
  }
  EXPECT_TRUE(traces.Assertions().empty());
}

}  // namespace
}  // namespace Async
