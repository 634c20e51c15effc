#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/unix/event.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/action_sequence.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/cyclic_runner.h"
#include "enterprise/common/async/synchronizer.h"
#include "tests/enterprise/common/async/fake_service.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::Failure;
using Testing::FakeAction;
using Testing::FakeHandler;
using Testing::FakeJob;
using Testing::FakeService;
using Testing::JobWithAnEnd;
using Testing::kFailure;

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

// How far apart in memory the frames are that were noted.
class StackSpan {
 public:
  void Note() {
    const auto address = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    lowest_ = std::min(lowest_, address);
    highest_ = std::max(highest_, address);
  }
  std::uintptr_t Size() const { return highest_ - lowest_; }

 private:
  std::uintptr_t lowest_ = UINTPTR_MAX;
  std::uintptr_t highest_ = 0;
};

// A step that ends when the test says so.
struct WaitingStep : FakeAction {
  WaitingStep()
      : FakeAction([this](ActionHandler& handler) {
          waiting.push_back(&handler);
          return job;
        }) {}
  std::vector<ActionHandler*> waiting;
  std::shared_ptr<FakeJob> job = std::make_shared<FakeJob>();
};

std::string ServiceName(const testing::TestParamInfo<bool>& parameter) {
  return parameter.param ? "WithService" : "WithoutService";
}

class RepeatingSequence : public ActionSequence {
 public:
  explicit RepeatingSequence(bool repeats = true) : repeats_(repeats) {}
  bool IsRepeating(ActionHandler&) override { return repeats_; }

 private:
  const bool repeats_;
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
  StackSpan stack;
  int next = 0;
  for (int i = 0; i < kSteps; ++i) {
    sequence.Execute(Step([&, i](ActionHandler& handler) {
      EXPECT_EQ(next++, i);
      stack.Note();
      handler.Completed({});
      return nullptr;
    }));
  }
  const auto job = sequence.Perform(handler_);
  EXPECT_NE(job, nullptr);
  EXPECT_EQ(next, kSteps);
  EXPECT_EQ(stack.Size(), 0u);
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

TEST_P(SequenceSteps, AFailureEndsItAndTheStopCodesMakeThatASuccess) {
  const struct {
    std::uint32_t code;
    bool repeating;
    bool success;
  } cases[] = {{0x77, false, false},
               {0x77, true, false},
               {kStopSequenceCode, false, true},
               {kStopSequenceCode, true, true},
               {kStopRepeatingCode, false, false},
               {kStopRepeatingCode, true, true}};
  for (const auto& stop : cases) {
    Common::Error wrapped = Failure();
    wrapped.SetReason(Failure(stop.code));
    int rounds = 0;
    const auto first = Step([&](ActionHandler& handler) {
      handler.Completed(++rounds == (stop.repeating ? 3 : 1) ? wrapped : Common::Error());
      return nullptr;
    });
    RepeatingSequence sequence(stop.repeating);
    sequence.Execute(first);
    const auto second = StepThatEnds();
    sequence.Execute(second);
    FakeHandler handler;
    const auto job = sequence.Perform(handler);
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(handler.results[0].GetCode() == 0, stop.success) << std::hex << stop.code;
    EXPECT_EQ(handler.results[0].HoldsCode(kFailure), !stop.success);
    EXPECT_EQ(second->performs, stop.repeating ? 2 : 0);
  }
}

// So many that a queue can't take them without moving what it knows of itself.
TEST_P(SequenceSteps, AStepMayAppendOthers) {
  constexpr int kAppended = 10000;
  ActionSequence sequence;
  std::vector<int> order;
  const auto note = [&](int number) {
    return Step([&order, number](ActionHandler& handler) {
      order.push_back(number);
      handler.Completed({});
      return nullptr;
    });
  };
  sequence.Execute(Step([&](ActionHandler& handler) {
    for (int i = 1; i <= kAppended; ++i) sequence.Execute(note(i));
    handler.Completed({});
    return nullptr;
  }));
  sequence.Execute(note(0));
  const auto job = sequence.Perform(handler_);
  ASSERT_EQ(handler_.results.size(), 1u);
  EXPECT_EQ(order.size(), kAppended + 1u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_P(SequenceSteps, ACancelReachesTheRunningStepOrTheNextOne) {
  // The step ends well although it was cancelled: the next one is not performed.
  ActionSequence sequence;
  const auto step = std::make_shared<WaitingStep>();
  sequence.Execute(step);
  const auto next = StepThatEnds();
  sequence.Execute(next);
  const auto job = sequence.Perform(handler_);
  job->Cancel();
  EXPECT_EQ(step->job->cancels, 1);
  step->waiting[0]->Completed({});
  ASSERT_EQ(handler_.results.size(), 1u);
  EXPECT_TRUE(handler_.results[0].HoldsCode(kCanceledCode));
  EXPECT_EQ(next->performs, 0);

  // In the last step an unheeded cancel changes nothing.
  ActionSequence one;
  one.Execute(step);
  const auto last = one.Perform(handler_);
  last->Cancel();
  step->waiting[1]->Completed({});
  ASSERT_EQ(handler_.results.size(), 2u);
  EXPECT_EQ(handler_.results[1].GetCode(), 0u);
}

// The steps end on the thread that had started them and left the loop: each end continues the loop.
TEST_P(SequenceSteps, JobsOutliveTheSequenceAndTheHandlerMayDropThem) {
  auto sequence = std::make_unique<ActionSequence>();
  const auto step = std::make_shared<WaitingStep>();
  for (int i = 0; i < 2; ++i) sequence->Execute(step);
  FakeHandler handlers[2];
  std::shared_ptr<Job> jobs[2] = {sequence->Perform(handlers[0]), sequence->Perform(handlers[1])};
  sequence.reset();
  for (int i = 0; i < 2; ++i) {
    handlers[i].in_completed = [&jobs, i] { jobs[i].reset(); };
  }
  for (std::size_t i = 0; i < 4; ++i) {
    ASSERT_LT(i, step->waiting.size());
    step->waiting[i]->Completed({});
  }
  EXPECT_EQ(handlers[0].results.size(), 1u);
  EXPECT_EQ(handlers[1].results.size(), 1u);
}

// Runs two steps. The thread of the first one comes to `block` behind the end of its step, and must
// come out of it once the second one has called `release`. Returns the thread of the second one.
std::thread::id RunBlocked(std::function<void()> block, const std::function<void()>& release) {
  ActionSequence sequence;
  std::thread::id second;
  sequence.Execute(Step([&](ActionHandler& handler) {
    handler.Completed({});
    return std::make_shared<JobWithAnEnd>(block);
  }));
  sequence.Execute(Step([&](ActionHandler& handler) {
    second = std::this_thread::get_id();
    handler.Completed({});
    release();
    return nullptr;
  }));
  Synchronizer end;
  const auto job = sequence.Perform(end);
  EXPECT_EQ(end.Wait(job).GetCode(), 0u);
  return second;
}

TEST_P(SequenceSteps, AThreadThatBlocksBehindItsStepHandsTheLoopOver) {
  Synchronizer gate;
  const std::thread::id second =
      RunBlocked([&] { gate.Wait(nullptr); }, [&] { gate.Completed({}); });
  // Without a service the loop goes on inside the wait.
  EXPECT_EQ(second != std::this_thread::get_id(), GetParam());
}

// Also on a thread that has taken the loop over, where nobody else would see it.
TEST_P(SequenceSteps, WhateverAStepOrAPassRaisesIsToldAsTheEnd) {
  const struct {
    void (*raise)();
    std::uint32_t code;
  } cases[] = {{[] { throw std::bad_alloc(); }, Common::kOutOfMemoryCode},
               {[] { throw std::runtime_error("raised"); }, kStdExceptionCode},
               {[] { throw 1; }, kUnknownExceptionCode}};
  for (const auto& one : cases) {
    ActionSequence sequence;
    Synchronizer end;
    sequence.Execute(Step([&](ActionHandler& handler) {
      handler.Completed({});
      return std::make_shared<JobWithAnEnd>(
          [&] { EXPECT_TRUE(end.Wait(nullptr).HoldsCode(one.code)); });
    }));
    sequence.Execute(Step([&](ActionHandler&) {
      one.raise();
      return nullptr;
    }));
    const auto job = sequence.Perform(end);

    Synchronizer cycle_end;
    unsigned int passes = 0;
    const auto cycle =
        RunCyclic(MakeAction([&](ActionHandler& handler) -> std::shared_ptr<Job> {
                    if (++passes > CyclicRunnerImpl::CyclicRunner::kMaxImmediatePasses) one.raise();
                    handler.Completed({});
                    return nullptr;
                  }),
                  cycle_end);
    EXPECT_TRUE(cycle_end.Wait(cycle).HoldsCode(one.code));
    if (service_ != nullptr) service_->Join();
  }
}

// It stalls without a wait that anybody is told of.
TEST(SequenceOfAService, TheMetronomeMovesTheLoopOfAThreadThatStalls) {
  FakeService service;
  Common::Event gate(false, false);
  const std::thread::id second = RunBlocked(
      [&] {
        service.Tick();
        gate.Wait();
      },
      [&] { gate.Set(); });
  EXPECT_NE(second, std::this_thread::get_id());
  EXPECT_EQ(service.interval, 60u);
  EXPECT_EQ(service.waits, 1);  // the last step has no next one to wait for
}

class Cycles : public SequenceSteps {};

INSTANTIATE_TEST_SUITE_P(, Cycles, testing::Bool(), ServiceName);

TEST_P(Cycles, RepeatUntilAPassFailsOrTheyAreCancelled) {
  WaitingStep pass;
  const auto perform = [&](ActionHandler& handler) { return pass.Perform(handler); };
  const auto job = RunCyclic(MakeAction(perform), handler_);
  for (std::size_t i = 0; i < 3; ++i) pass.waiting.at(i)->Completed({});
  EXPECT_EQ(pass.performs, 4);
  EXPECT_TRUE(handler_.results.empty());
  pass.waiting.back()->Completed(Failure());
  EXPECT_EQ(pass.performs, 4);
  ASSERT_EQ(handler_.results.size(), 1u);
  EXPECT_EQ(handler_.results[0].GetCode(), kFailure);

  // Also when the cancelled pass ends well.
  const auto canceled = RunCyclic(MakeAction(perform), handler_);
  canceled->Cancel();
  pass.waiting.back()->Completed({});
  EXPECT_EQ(pass.performs, 5);
  ASSERT_EQ(handler_.results.size(), 2u);
  EXPECT_TRUE(handler_.results[1].HoldsCode(kCanceledCode));
}

TEST_P(Cycles, PassesThatEndAtOnceUseOneStackAndGiveTheStarterItsThreadBack) {
  constexpr int kPasses = 100000;
  const std::thread::id starter = std::this_thread::get_id();
  int passes = 0;
  int on_starter = 0;
  StackSpan stack;
  Synchronizer end;
  const auto job = RunCyclic(MakeAction([&](ActionHandler& handler) -> std::shared_ptr<Job> {
                               if (std::this_thread::get_id() == starter) {
                                 ++on_starter;
                                 stack.Note();
                               }
                               handler.Completed(++passes == kPasses ? Failure() : Common::Error());
                               return nullptr;
                             }),
                             end);
  EXPECT_TRUE(end.Wait(job).HoldsCode(kFailure));
  EXPECT_EQ(passes, kPasses);
  EXPECT_EQ(stack.Size(), 0u);
  EXPECT_EQ(on_starter,
            GetParam() ? int{CyclicRunnerImpl::CyclicRunner::kMaxImmediatePasses} : kPasses);
}

// The second runner may come to the address of the first one, whose loop is still on the stack.
TEST(CyclesOneAfterTheOther, KeepToTheirOwnActions) {
  ActionHandler* waiting = nullptr;
  const auto waits_and_fails = [&waiting] {
    return std::make_shared<FakeAction>(
        [&waiting, passes = 0](ActionHandler& handler) mutable -> std::shared_ptr<Job> {
          if (++passes > 1) {
            handler.Completed(Failure());
            return nullptr;
          }
          waiting = &handler;
          return std::make_shared<FakeJob>();
        });
  };
  const auto first = waits_and_fails();
  const auto second = waits_and_fails();
  FakeHandler end;
  FakeHandler restart;
  std::shared_ptr<Job> job = CyclicRunnerImpl::CyclicRunner::Start(first, restart);
  restart.in_completed = [&] {
    job.reset();
    job = CyclicRunnerImpl::CyclicRunner::Start(second, end);
    waiting->Completed({});
  };
  waiting->Completed({});
  EXPECT_EQ(first->performs, 2);
  EXPECT_EQ(second->performs, 2);
  EXPECT_EQ(end.results.size(), 1u);
}

// The service doesn't run the work of a cycle of three times the passes that one thread runs.
class CyclesOfAService : public testing::Test {
 protected:
  static constexpr int kShare = CyclicRunnerImpl::CyclicRunner::kMaxImmediatePasses;

  std::shared_ptr<Job> Run() {
    return RunCyclic(MakeAction([this](ActionHandler& done) -> std::shared_ptr<Job> {
                       done.Completed(++passes_ == 3 * kShare ? Failure() : Common::Error());
                       return nullptr;
                     }),
                     handler_);
  }
  void ExpectEnd() {
    ASSERT_EQ(handler_.results.size(), 1u);
    EXPECT_TRUE(handler_.results[0].HoldsCode(kFailure));
    EXPECT_EQ(passes_, 3 * kShare);
    EXPECT_EQ(service_.works, 2);
  }

  FakeService service_;
  FakeHandler handler_;
  int passes_ = 0;
};

TEST_F(CyclesOfAService, GoOnInPlaceWhenItTakesNoWork) {
  service_.RefuseWork();
  const auto job = Run();
  ExpectEnd();
}

TEST_F(CyclesOfAService, GoOnInPlaceWhenItRaisesSomethingElse) {
  service_.RefuseWork([] { throw std::runtime_error("no thread"); });
  const auto job = Run();
  ExpectEnd();
}

TEST_F(CyclesOfAService, GoOnWhereItTellsLaterThatItHasNotRunTheWork) {
  service_.KeepWork();
  const auto job = Run();
  EXPECT_EQ(passes_, kShare);
  service_.kept_work.at(0)->Completed(canceled_error.Get());  // on the thread that gave it the work
  EXPECT_EQ(passes_, 2 * kShare);
  EXPECT_TRUE(handler_.results.empty());
  std::thread([&] { service_.kept_work.at(1)->Completed(canceled_error.Get()); }).join();
  ExpectEnd();
}

TEST(CyclicRunAction, DescribesItsJobAndRunsAsAnAction) {
  FakeHandler handler;
  const auto job = MakeCyclic(std::make_unique<WaitingStep>())->Perform(handler);
  const JobDescription description = job->Describe();
  EXPECT_EQ(description.text, u"ASYNC: Cyclic action execution job.");
  EXPECT_STREQ(description.tag.file, "enterprise/common/async/cyclic_runner");
  EXPECT_STREQ(description.tag.function, "Describe");
}

}  // namespace
}  // namespace Async
