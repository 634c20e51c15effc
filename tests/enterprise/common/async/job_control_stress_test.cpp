#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/synchronizer.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::Failure;
using Testing::TraceRecorder;

// A thread that completes what it is given, at once or after the giver has gone on.
class Completer {
 public:
  ~Completer() {
    Give(reinterpret_cast<ActionHandler*>(1));
    thread_.join();
  }

  void Give(ActionHandler* handler) {
    given_.store(handler);
    given_.notify_one();
  }
  void AskToCancel() { canceled_ = true; }

 private:
  void Loop() {
    for (;;) {
      given_.wait(nullptr);
      ActionHandler* const handler = given_.exchange(nullptr);
      if (handler == reinterpret_cast<ActionHandler*>(1)) return;
      handler->Completed(canceled_.exchange(false) ? canceled_error.Get() : Common::Error());
    }
  }

  std::atomic<ActionHandler*> given_{nullptr};
  std::atomic<bool> canceled_{false};
  std::thread thread_{[this] { Loop(); }};
};

class CompleterJob : public BaseJob {
 public:
  explicit CompleterJob(Completer& completer) : completer_(completer) {}
  void Cancel() override { completer_.AskToCancel(); }

 private:
  Completer& completer_;
};

class Gate : public ActionHandler {
 public:
  void Completed(Common::Error result) override {
    ++told;
    synchronizer.Completed(std::move(result));
  }

  std::atomic<int> told{0};
  Synchronizer synchronizer;
};

// Runs on one thread, ends on a second, cancels on two more. For the thread sanitizer above all;
// the orders themselves are explored one by one elsewhere.
TEST(JobControlStress, EveryRunIsToldOnce) {
  constexpr int kRuns = 3000;
  TraceRecorder traces;
  JobControl control;
  std::atomic<bool> stop{false};
  {
    Completer completer;
    Testing::FakeAction action([&](ActionHandler& handler) -> std::shared_ptr<Job> {
      completer.Give(&handler);
      return std::make_shared<CompleterJob>(completer);
    });
    const auto cancel = [&] {
      for (int turn = 0; !stop; ++turn) {
        if (turn % 8 == 0) control.Cancel();
        std::this_thread::yield();
      }
    };
    std::jthread first(cancel);
    std::jthread second(cancel);
    for (int run = 0; run < kRuns; ++run) {
      Gate gate;
      control.Run(action, gate, nullptr);
      const Common::Error result = gate.synchronizer.Wait(nullptr);
      EXPECT_TRUE(!result.IsFailure() || result.HoldsCode(kCanceledCode));
      EXPECT_EQ(gate.told, 1);
    }
    stop = true;
  }
  EXPECT_TRUE(control.State() == STATE_BEGIN || control.State() == STATE_CANCEL_SCHEDULED_WAIT_ALL);
  EXPECT_TRUE(traces.Assertions().empty());
}

// The thread that told the handler is still on its way out of the control.
TEST(JobControlStress, TheControlMayDieRightAfterTheWait) {
  TraceRecorder traces;
  Completer completer;
  Testing::FakeAction action([&](ActionHandler& handler) -> std::shared_ptr<Job> {
    completer.Give(&handler);
    return std::make_shared<CompleterJob>(completer);
  });
  for (int run = 0; run < 2000; ++run) {
    auto control = std::make_unique<JobControl>();
    Synchronizer synchronizer;
    control->Run(action, synchronizer, nullptr);
    EXPECT_EQ(synchronizer.Wait(nullptr).GetCode(), 0u);
    control.reset();
  }
  EXPECT_TRUE(traces.Assertions().empty());
}

}  // namespace
}  // namespace Async
