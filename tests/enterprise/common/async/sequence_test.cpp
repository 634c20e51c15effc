#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/common/unix/event.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/action_sequence.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/cyclic_runner.h"
#include "enterprise/common/async/synchronizer.h"
#include "tests/enterprise/common/async/fake_service.h"
#include "tests/enterprise/common/async/test_support.h"
#include "tests/support/text.h"

namespace Async {
namespace {

using Testing::Failure;
using Testing::FakeAction;
using Testing::FakeHandler;
using Testing::FakeJob;
using Testing::FakeService;
using Testing::kFailure;

std::uintptr_t StackAddress() {
  return reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
}

std::shared_ptr<FakeAction> Step(FakeAction::Body body) {
  return std::make_shared<FakeAction>(std::move(body));
}

// A step that completes inside its Perform.
std::shared_ptr<FakeAction> StepThatEnds(Common::Error result = {}) {
  return Step([result](ActionHandler& handler) {
    handler.Completed(result);
    return nullptr;
  });
}

std::string ServiceName(const testing::TestParamInfo<bool>& parameter) {
  return parameter.param ? "WithService" : "WithoutService";
}

class RepeatingSequence : public ActionSequence {
 public:
  bool IsRepeating(ActionHandler&) override { return true; }
};

// Runs its test without an async service, and with one that the test drives by hand.
class SequenceSteps : public testing::TestWithParam<bool> {
 protected:
  SequenceSteps() {
    if (GetParam()) service_ = std::make_unique<FakeService>();
  }

  std::unique_ptr<FakeService> service_;
  FakeHandler handler_;
};

INSTANTIATE_TEST_SUITE_P(, SequenceSteps, testing::Bool(), ServiceName);

TEST_P(SequenceSteps, WithoutActionsItSucceedsAtOnceWithoutAJob) {
  RepeatingSequence sequence;
  sequence.Execute(nullptr);
  EXPECT_EQ(sequence.Perform(handler_), nullptr);
  ASSERT_EQ(handler_.results.size(), 1u);
  EXPECT_EQ(handler_.results[0].GetCode(), 0u);
}

TEST_P(SequenceSteps, SynchronousStepsRunInOrderOnOneStack) {
  constexpr int kSteps = 100000;
  ActionSequence sequence;
  std::uintptr_t lowest = UINTPTR_MAX;
  std::uintptr_t highest = 0;
  int next = 0;
  for (int i = 0; i < kSteps; ++i) {
    sequence.Execute(Step([&, i](ActionHandler& handler) {
      EXPECT_EQ(next++, i);
      lowest = std::min(lowest, StackAddress());
      highest = std::max(highest, StackAddress());
      handler.Completed({});
      return nullptr;
    }));
  }
  const auto job = sequence.Perform(handler_);
  EXPECT_NE(job, nullptr);
  EXPECT_EQ(next, kSteps);
  EXPECT_EQ(highest, lowest);
  EXPECT_EQ(handler_.results.size(), 1u);
}

TEST_P(SequenceSteps, AStepThatEndsLaterContinuesFromInsideItsCompletion) {
  ActionSequence sequence;
  ActionHandler* waiting = nullptr;
  sequence.Execute(Step([&](ActionHandler& handler) {
    waiting = &handler;
    return std::make_shared<FakeJob>();
  }));
  const auto last = StepThatEnds();
  sequence.Execute(last);
  const auto job = sequence.Perform(handler_);
  EXPECT_EQ(last->performs, 0);
  // On the thread that had started the step and left the loop.
  waiting->Completed({});
  EXPECT_EQ(last->performs, 1);
  EXPECT_EQ(handler_.results.size(), 1u);
}

TEST_P(SequenceSteps, OneThreadGoesOnWhenAStepEndsElsewhereBeforeItsPerformReturns) {
  for (int round = 0; round < 50; ++round) {
    ActionSequence sequence;
    std::vector<int> order;
    std::vector<std::thread> threads;
    for (int i = 0; i < 20; ++i) {
      sequence.Execute(Step([&, i](ActionHandler& handler) -> std::shared_ptr<Job> {
        order.push_back(i);
        std::thread ender([&handler] { handler.Completed({}); });
        if (i % 2 == 0) {
          ender.join();
        } else {
          threads.push_back(std::move(ender));  // before or after: as it comes
        }
        return std::make_shared<FakeJob>();
      }));
    }
    Synchronizer synchronizer;
    const auto job = sequence.Perform(synchronizer);
    EXPECT_EQ(synchronizer.Wait(job).GetCode(), 0u);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    for (std::thread& thread : threads) thread.join();
  }
}

TEST_P(SequenceSteps, AFailureEndsItWithThatError) {
  ActionSequence sequence;
  sequence.Execute(StepThatEnds(Failure()));
  const auto later = StepThatEnds();
  sequence.Execute(later);
  const auto job = sequence.Perform(handler_);
  ASSERT_EQ(handler_.results.size(), 1u);
  EXPECT_TRUE(handler_.results[0].HoldsCode(kFailure));
  EXPECT_EQ(later->performs, 0);
}

struct StopCase {
  std::uint32_t code;
  bool repeating;
  bool success;
};

TEST_P(SequenceSteps, StopCodesEndItWithSuccess) {
  const StopCase cases[] = {{kStopSequenceCode, false, true},
                            {kStopSequenceCode, true, true},
                            {kStopRepeatingCode, false, false},
                            {kStopRepeatingCode, true, true}};
  for (const StopCase& stop : cases) {
    Common::Error wrapped = Failure();
    wrapped.SetReason(Failure(stop.code));
    int rounds = 0;
    const auto first = Step([&](ActionHandler& handler) {
      handler.Completed(++rounds == (stop.repeating ? 3 : 1) ? wrapped : Common::Error());
      return nullptr;
    });
    std::unique_ptr<ActionSequence> sequence;
    if (stop.repeating) {
      sequence = std::make_unique<RepeatingSequence>();
    } else {
      sequence = std::make_unique<ActionSequence>();
    }
    sequence->Execute(first);
    const auto second = StepThatEnds();
    sequence->Execute(second);
    FakeHandler handler;
    const auto job = sequence->Perform(handler);
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(handler.results[0].GetCode() == 0, stop.success) << std::hex << stop.code;
    EXPECT_EQ(second->performs, stop.repeating ? 2 : 0);
  }
}

TEST_P(SequenceSteps, ACancelReachesTheRunningStepOrTheNextOne) {
  // The step ends well although it was cancelled: the next one is not performed.
  ActionSequence sequence;
  ActionHandler* waiting = nullptr;
  auto step_job = std::make_shared<FakeJob>();
  sequence.Execute(Step([&](ActionHandler& handler) {
    waiting = &handler;
    return step_job;
  }));
  const auto next = StepThatEnds();
  sequence.Execute(next);
  const auto job = sequence.Perform(handler_);
  job->Cancel();
  EXPECT_EQ(step_job->cancels, 1);
  waiting->Completed({});
  ASSERT_EQ(handler_.results.size(), 1u);
  EXPECT_TRUE(handler_.results[0].HoldsCode(kCanceledCode));
  EXPECT_EQ(next->performs, 0);

  // In the last step an unheeded cancel changes nothing.
  ActionSequence one;
  one.Execute(Step([&](ActionHandler& handler) {
    waiting = &handler;
    return step_job;
  }));
  FakeHandler handler;
  const auto last = one.Perform(handler);
  last->Cancel();
  waiting->Completed({});
  ASSERT_EQ(handler.results.size(), 1u);
  EXPECT_EQ(handler.results[0].GetCode(), 0u);
}

TEST_P(SequenceSteps, JobsOutliveTheSequenceAndTheHandlerMayDropThem) {
  auto sequence = std::make_unique<ActionSequence>();
  std::vector<ActionHandler*> waiting;
  for (int i = 0; i < 2; ++i) {
    sequence->Execute(Step([&](ActionHandler& handler) {
      waiting.push_back(&handler);
      return nullptr;
    }));
  }
  FakeHandler handlers[2];
  std::shared_ptr<Job> jobs[2] = {sequence->Perform(handlers[0]), sequence->Perform(handlers[1])};
  sequence.reset();
  for (int i = 0; i < 2; ++i) {
    handlers[i].in_completed = [&jobs, i] { jobs[i].reset(); };
  }
  for (std::size_t i = 0; i < 4; ++i) waiting[i]->Completed({});
  EXPECT_EQ(handlers[0].results.size(), 1u);
  EXPECT_EQ(handlers[1].results.size(), 1u);
}

// Blocks the thread that drops it until the gate opens.
class JobThatBlocksAtItsEnd : public BaseJob {
 public:
  explicit JobThatBlocksAtItsEnd(Synchronizer& gate) : gate_(gate) {}
  ~JobThatBlocksAtItsEnd() override { gate_.Wait(nullptr); }
  void Cancel() override {}

 private:
  Synchronizer& gate_;
};

TEST_P(SequenceSteps, AThreadThatBlocksBehindItsStepHandsTheLoopOver) {
  ActionSequence sequence;
  Synchronizer gate;
  std::thread::id second;
  sequence.Execute(Step([&](ActionHandler& handler) {
    handler.Completed({});
    return std::make_shared<JobThatBlocksAtItsEnd>(gate);
  }));
  sequence.Execute(Step([&](ActionHandler& handler) {
    second = std::this_thread::get_id();
    handler.Completed({});
    gate.Completed({});
    return nullptr;
  }));
  Synchronizer end;
  const auto job = sequence.Perform(end);
  EXPECT_EQ(end.Wait(job).GetCode(), 0u);
  // Without a service the loop goes on inside the wait.
  EXPECT_EQ(second != std::this_thread::get_id(), GetParam());
}

// Stalls, without a wait that anybody is told of, until the gate opens.
class JobThatStallsAtItsEnd : public BaseJob {
 public:
  JobThatStallsAtItsEnd(FakeService& service, Common::Event& gate)
      : service_(service), gate_(gate) {}
  ~JobThatStallsAtItsEnd() override {
    service_.Tick();
    gate_.Wait();
  }
  void Cancel() override {}

 private:
  FakeService& service_;
  Common::Event& gate_;
};

TEST(SequenceOfAService, TheMetronomeMovesTheLoopOfAThreadThatStalls) {
  FakeService service;
  ActionSequence sequence;
  Common::Event gate(false, false);
  std::thread::id second;
  sequence.Execute(Step([&](ActionHandler& handler) {
    handler.Completed({});
    return std::make_shared<JobThatStallsAtItsEnd>(service, gate);
  }));
  sequence.Execute(Step([&](ActionHandler& handler) {
    second = std::this_thread::get_id();
    handler.Completed({});
    gate.Set();
    return nullptr;
  }));
  Synchronizer end;
  const auto job = sequence.Perform(end);
  EXPECT_EQ(end.Wait(job).GetCode(), 0u);
  EXPECT_NE(second, std::this_thread::get_id());
  EXPECT_EQ(service.interval, 60u);
  EXPECT_EQ(service.waits, 1);  // the last step has no next one to wait for
}

TEST(SequenceOfAService, ACancelReachesALoopThatWasHandedOver) {
  FakeService service;
  ActionSequence sequence;
  FakeHandler end;
  Synchronizer gate;
  Common::Event second_runs(false, false);
  Common::Event canceled(false, false);
  ActionHandler* second = nullptr;
  auto second_job = std::make_shared<FakeJob>([&] { second->Completed(canceled_error.Get()); });
  sequence.Execute(Step([&](ActionHandler& handler) {
    handler.Completed({});
    return std::make_shared<JobThatBlocksAtItsEnd>(gate);
  }));
  // Still inside its Perform, on a thread of the service, when the cancel comes.
  sequence.Execute(Step([&](ActionHandler& handler) {
    second = &handler;
    second_runs.Set();
    canceled.Wait();
    return second_job;
  }));
  const auto third = StepThatEnds();
  sequence.Execute(third);
  std::shared_ptr<Job> job;
  std::thread starter([&] { job = sequence.Perform(end); });
  second_runs.Wait();
  gate.Completed({});
  starter.join();
  job->Cancel();
  EXPECT_EQ(second_job->cancels, 0);
  canceled.Set();
  service.Join();
  EXPECT_EQ(second_job->cancels, 1);
  ASSERT_EQ(end.results.size(), 1u);
  EXPECT_TRUE(end.results[0].HoldsCode(kCanceledCode));
  EXPECT_EQ(third->performs, 0);
}

// A cycle whose passes are told by the test.
class Cycles : public SequenceSteps {};

INSTANTIATE_TEST_SUITE_P(, Cycles, testing::Bool(), ServiceName);

TEST_P(Cycles, RepeatUntilAPassFails) {
  ActionHandler* pass = nullptr;
  int passes = 0;
  const auto job = RunCyclic(MakeAction([&](ActionHandler& handler) {
                               pass = &handler;
                               ++passes;
                               return std::make_shared<FakeJob>();
                             }),
                             handler_);
  for (int i = 0; i < 3; ++i) pass->Completed({});
  EXPECT_EQ(passes, 4);
  EXPECT_TRUE(handler_.results.empty());
  pass->Completed(Failure());
  EXPECT_EQ(passes, 4);
  ASSERT_EQ(handler_.results.size(), 1u);
  EXPECT_EQ(handler_.results[0].GetCode(), kFailure);
}

TEST_P(Cycles, ACancelEndsThemAlsoWhenThePassEndsWell) {
  ActionHandler* pass = nullptr;
  const auto job = RunCyclic(MakeAction([&](ActionHandler& handler) {
                               pass = &handler;
                               return std::make_shared<FakeJob>();
                             }),
                             handler_);
  job->Cancel();
  pass->Completed({});
  ASSERT_EQ(handler_.results.size(), 1u);
  EXPECT_TRUE(handler_.results[0].HoldsCode(kCanceledCode));
}

TEST_P(Cycles, PassesThatEndAtOnceUseOneStackAndGiveTheStarterItsThreadBack) {
  constexpr int kPasses = 100000;
  const std::thread::id starter = std::this_thread::get_id();
  int passes = 0;
  int on_starter = 0;
  std::uintptr_t lowest = UINTPTR_MAX;
  std::uintptr_t highest = 0;
  Synchronizer end;
  const auto job = RunCyclic(MakeAction([&](ActionHandler& handler) -> std::shared_ptr<Job> {
                               if (std::this_thread::get_id() == starter) {
                                 ++on_starter;
                                 lowest = std::min(lowest, StackAddress());
                                 highest = std::max(highest, StackAddress());
                               }
                               handler.Completed(++passes == kPasses ? Failure() : Common::Error());
                               return nullptr;
                             }),
                             end);
  EXPECT_TRUE(end.Wait(job).HoldsCode(kFailure));
  EXPECT_EQ(passes, kPasses);
  EXPECT_EQ(highest, lowest);
  if (GetParam()) {
    EXPECT_EQ(on_starter, static_cast<int>(CyclicRunnerImpl::CyclicRunner::kMaxImmediatePasses));
  } else {
    EXPECT_EQ(on_starter, kPasses);
  }
}

TEST(CyclesOfAService, GoOnInPlaceWhenItTakesNoWork) {
  FakeService service;
  service.RefuseWork();
  constexpr int kPasses = 3 * CyclicRunnerImpl::CyclicRunner::kMaxImmediatePasses;
  int passes = 0;
  FakeHandler handler;
  const auto job = RunCyclic(MakeAction([&](ActionHandler& done) -> std::shared_ptr<Job> {
                               done.Completed(++passes == kPasses ? Failure() : Common::Error());
                               return nullptr;
                             }),
                             handler);
  ASSERT_EQ(handler.results.size(), 1u);
  EXPECT_TRUE(handler.results[0].HoldsCode(kFailure));
  EXPECT_EQ(passes, kPasses);
}

TEST(CyclicRunAction, DescribesItsJobAndRunsAsAnAction) {
  const auto cyclic = MakeCyclic(MakeAction(
      [](ActionHandler&) -> std::shared_ptr<Job> { return std::make_shared<FakeJob>(); }));
  FakeHandler handler;
  const auto job = cyclic->Perform(handler);
  const JobDescription description = job->Describe();
  EXPECT_EQ(TestSupport::Utf8(description.text), "ASYNC: Cyclic action execution job.");
  EXPECT_STREQ(description.tag.file, "enterprise/common/async/cyclic_runner");
  EXPECT_STREQ(description.tag.function, "Describe");
}

}  // namespace
}  // namespace Async
