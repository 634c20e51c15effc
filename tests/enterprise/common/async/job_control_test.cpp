#include "enterprise/common/async/job_control.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "enterprise/common/async/async_error.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::Failure;
using Testing::FakeAction;
using Testing::FakeHandler;
using Testing::FakeJob;
using Testing::kFailure;
using Testing::TraceRecorder;

// One run on a control that the handler may destroy. Events are fired from inside the calls out.
class Stage {
 public:
  Stage() {
    handler.in_completed = [this] {
      state_when_told = control->State();
      told_inside_job_cancel = inside_job_cancel;
      told_inside_perform = inside_perform;
      if (destroy_when_told) control.reset();
    };
  }

  void Run() { control->Run(action, handler, &description); }
  void Cancel() { control->Cancel(); }
  void Complete(const Common::Error& result) { control->Completed(result); }
  JobState State() const { return control->State(); }

  bool destroy_when_told = false;
  std::function<void()> in_perform;
  std::function<void()> in_job_cancel;
  bool returns_job = true;
  bool perform_throws = false;

  std::unique_ptr<JobControl> control = std::make_unique<JobControl>();
  FakeHandler handler;
  JobState state_when_told{};
  bool told_inside_job_cancel = false;
  bool told_inside_perform = false;
  int job_cancels = 0;

  class Description : public DescriptiveEntity {
   public:
    JobDescription Describe() override {
      if (throws) throw Failure(0x77);
      if (out_of_memory) throw std::bad_alloc();
      return {Common::LineTag{}, u"Backing up."};
    }
    bool throws = false;
    bool out_of_memory = false;
  } description;

  FakeAction action{[this](ActionHandler&) -> std::shared_ptr<Job> {
    inside_perform = true;
    if (in_perform) in_perform();
    inside_perform = false;
    if (perform_throws) throw Failure(0x55);
    if (!returns_job) return nullptr;
    return std::make_shared<FakeJob>([this] {
      ++job_cancels;
      inside_job_cancel = true;
      if (in_job_cancel) in_job_cancel();
      inside_job_cancel = false;
    });
  }};

 private:
  bool inside_perform = false;
  bool inside_job_cancel = false;
};

struct Way {
  const char* name;
  void (*drive)(Stage&);
  std::vector<std::uint32_t> chain;  // codes that the handler gets; empty: success
  JobState after;
  int job_cancels;
};

constexpr std::uint32_t kDescribed = kDescribedJobCode;

// Every way through a run that one thread can take.
const Way kWays[] = {
    {"CompletedAfterPerformHandsOverTheBareError",
     [](Stage& s) {
       s.Run();
       EXPECT_EQ(s.State(), STATE_PERFORMED_WAIT_COMPLETED);
       s.Complete(Failure());
     },
     {kFailure},
     STATE_BEGIN,
     0},
    {"CompletedInsidePerform",
     [](Stage& s) {
       s.in_perform = [&s] {
         s.Complete(Failure());
         EXPECT_EQ(s.State(), STATE_COMPLETED_WAIT_PERFORM);
         EXPECT_TRUE(s.handler.results.empty());
       };
       s.Run();
     },
     {kDescribed, kFailure},
     STATE_BEGIN,
     0},
    {"CancelledBeforeRun",
     [](Stage& s) {
       s.Cancel();
       EXPECT_EQ(s.State(), STATE_CANCEL_SCHEDULED_WAIT_ALL);
       s.Run();
     },
     {kCanceledCode},
     STATE_BEGIN,
     0},
    {"CancelInsidePerformWithoutAJobWaitsForTheResult",
     [](Stage& s) {
       s.returns_job = false;
       s.in_perform = [&s] { s.Cancel(); };
       s.Run();
       EXPECT_EQ(s.State(), STATE_CANCEL_DONE_WAIT_COMPLETED);
       s.Cancel();
       s.Complete({});
     },
     {},
     STATE_CANCEL_SCHEDULED_WAIT_ALL,
     0},
    {"CancelInsidePerformReachesTheReturnedJob",
     [](Stage& s) {
       s.in_perform = [&s] {
         s.Cancel();
         EXPECT_EQ(s.job_cancels, 0);
       };
       s.in_job_cancel = [&s] {
         EXPECT_EQ(s.State(), STATE_CANCEL_SCHEDULED_CANCELLING);
         s.Cancel();
       };
       s.Run();
       EXPECT_EQ(s.State(), STATE_CANCEL_DONE_WAIT_COMPLETED);
       s.Complete(Failure(kCanceledCode));
     },
     {kDescribed, kCanceledCode},
     STATE_BEGIN,
     1},
    {"CancelInsidePerformHonouredInsideJobCancel",
     [](Stage& s) {
       s.in_perform = [&s] { s.Cancel(); };
       s.in_job_cancel = [&s] {
         s.Complete(Failure(kCanceledCode));
         EXPECT_EQ(s.State(), STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED);
         s.Cancel();
       };
       s.Run();
     },
     {kDescribed, kCanceledCode},
     STATE_BEGIN,
     1},
    {"CancelInsidePerformIgnoredInsideJobCancel",
     [](Stage& s) {
       s.in_perform = [&s] { s.Cancel(); };
       s.in_job_cancel = [&s] { s.Complete(Failure()); };
       s.Run();
     },
     {kDescribed, kFailure},
     STATE_CANCEL_SCHEDULED_WAIT_ALL,
     1},
    {"CompletedThenCancelInsidePerform",
     [](Stage& s) {
       s.in_perform = [&s] {
         s.Complete({});
         s.Cancel();
         EXPECT_EQ(s.State(), STATE_CANCEL_SCHEDULED_WAIT_PERFORM);
         s.Cancel();
       };
       s.Run();
     },
     {},
     STATE_CANCEL_SCHEDULED_WAIT_ALL,
     0},
    // The cancel stays pending though the result is a cancellation.
    {"CancelThenCanceledResultInsidePerform",
     [](Stage& s) {
       s.in_perform = [&s] {
         s.Cancel();
         s.Complete(Failure(kCanceledCode));
         EXPECT_EQ(s.State(), STATE_CANCEL_SCHEDULED_WAIT_PERFORM);
       };
       s.Run();
     },
     {kDescribed, kCanceledCode},
     STATE_CANCEL_SCHEDULED_WAIT_ALL,
     0},
    {"CancelWhileRunningThenCanceledResult",
     [](Stage& s) {
       s.Run();
       s.in_job_cancel = [&s] {
         EXPECT_EQ(s.State(), STATE_CANCELLING);
         s.Cancel();  // not the one inside Job::Cancel: changes nothing
         EXPECT_EQ(s.State(), STATE_CANCELLING);
       };
       s.Cancel();
       EXPECT_EQ(s.State(), STATE_CANCEL_DONE_WAIT_COMPLETED);
       s.Cancel();
       // The mark may stand anywhere in the chain.
       Common::Error wrapped = Failure();
       wrapped.SetReason(Failure(kCanceledCode));
       s.Complete(wrapped);
     },
     {kDescribed, kFailure, kCanceledCode},
     STATE_BEGIN,
     1},
    {"CancelWhileRunningThenSuccess",
     [](Stage& s) {
       s.Run();
       s.Cancel();
       s.Complete({});
     },
     {},
     STATE_CANCEL_SCHEDULED_WAIT_ALL,
     1},
    {"CancelWhileRunningWithoutAJob",
     [](Stage& s) {
       s.returns_job = false;
       s.Run();
       s.Cancel();
       EXPECT_EQ(s.State(), STATE_CANCEL_DONE_WAIT_COMPLETED);
       s.Complete(Failure());
     },
     {kDescribed, kFailure},
     STATE_CANCEL_SCHEDULED_WAIT_ALL,
     0},
    {"CancelHonouredInsideJobCancel",
     [](Stage& s) {
       s.Run();
       s.in_job_cancel = [&s] {
         s.Complete(Failure(kCanceledCode));
         EXPECT_EQ(s.State(), STATE_CANCELLING_COMPLETED);
         s.Cancel();  // the same for a second one now
         EXPECT_EQ(s.State(), STATE_CANCELLING_COMPLETED);
       };
       s.Cancel();
     },
     {kDescribed, kCanceledCode},
     STATE_BEGIN,
     1},
    {"SuccessInsideJobCancel",
     [](Stage& s) {
       s.Run();
       s.in_job_cancel = [&s] { s.Complete({}); };
       s.Cancel();
     },
     {},
     STATE_CANCEL_SCHEDULED_WAIT_ALL,
     1},
    {"PerformFails",
     [](Stage& s) {
       s.perform_throws = true;
       s.Run();
     },
     {kExceptionCode, 0x55},
     STATE_BEGIN,
     0},
    {"PerformFailsAfterItsResult",
     [](Stage& s) {
       s.perform_throws = true;
       s.in_perform = [&s] { s.Complete({}); };
       s.Run();
     },
     {kExceptionCode, 0x55},
     STATE_BEGIN,
     0},
    {"PerformFailsWithACancelPending",
     [](Stage& s) {
       s.perform_throws = true;
       s.in_perform = [&s] { s.Cancel(); };
       s.Run();
     },
     {kExceptionCode, 0x55},
     STATE_BEGIN,
     0},
    {"PerformFailsAfterCancelAndResult",
     [](Stage& s) {
       s.perform_throws = true;
       s.in_perform = [&s] {
         s.Cancel();
         s.Complete({});
       };
       s.Run();
     },
     {kExceptionCode, 0x55},
     STATE_BEGIN,
     0},
};

std::vector<std::uint32_t> Chain(Common::Error error) {
  std::vector<std::uint32_t> codes;
  for (; error.GetCode() != 0; error = error.GetNextError()) codes.push_back(error.GetCode());
  return codes;
}

TEST(JobControlRun, EveryWayTellsTheHandlerOnceAndLeavesTheControlFree) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    TraceRecorder traces;
    Stage stage;
    way.drive(stage);
    ASSERT_EQ(stage.handler.results.size(), 1u);
    EXPECT_EQ(Chain(stage.handler.results[0]), way.chain);
    EXPECT_FALSE(stage.told_inside_job_cancel);
    EXPECT_FALSE(stage.told_inside_perform);
    EXPECT_EQ(stage.state_when_told, way.after);
    EXPECT_EQ(stage.State(), way.after);
    EXPECT_EQ(stage.job_cancels, way.job_cancels);

    // A cancel that is left over ends the next run before its Perform, and is used up by that.
    const int performs = stage.action.performs;
    stage.in_perform = nullptr;
    stage.in_job_cancel = nullptr;
    stage.perform_throws = false;
    stage.Run();
    if (way.after == STATE_CANCEL_SCHEDULED_WAIT_ALL) {
      ASSERT_EQ(stage.handler.results.size(), 2u);
      EXPECT_EQ(Chain(stage.handler.results[1]), std::vector{kCanceledCode});
      EXPECT_EQ(stage.action.performs, performs);
    } else {
      EXPECT_EQ(stage.handler.results.size(), 1u);
      EXPECT_EQ(stage.State(), STATE_PERFORMED_WAIT_COMPLETED);
      stage.Complete({});
    }
    EXPECT_EQ(stage.State(), STATE_BEGIN);
    EXPECT_TRUE(traces.Assertions().empty());
  }
}

// Worth its name under the address sanitizer.
TEST(JobControlRun, TheHandlerMayDestroyTheControlOnEveryWay) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    TraceRecorder traces;
    Stage stage;
    stage.destroy_when_told = true;
    way.drive(stage);
    EXPECT_EQ(stage.control, nullptr);
    EXPECT_EQ(stage.handler.results.size(), 1u);
    EXPECT_TRUE(traces.Assertions().empty());
  }
}

TEST(JobControlRun, StartsAgainInsideTheHandlerAndReleasesTheOldJobLast) {
  JobControl control;
  FakeHandler handler;
  std::weak_ptr<Job> first;
  FakeAction synchronous([&](ActionHandler& self) -> std::shared_ptr<Job> {
    EXPECT_FALSE(first.expired());
    self.Completed({});
    return nullptr;
  });
  FakeAction action([&](ActionHandler&) {
    auto job = std::make_shared<FakeJob>();
    first = job;
    return job;
  });
  handler.in_completed = [&] {
    if (handler.results.size() > 1) return;
    control.Run(synchronous, handler, nullptr);
    EXPECT_EQ(handler.results.size(), 2u);
    EXPECT_FALSE(first.expired());
  };
  control.Run(action, handler, nullptr);
  control.Completed({});
  EXPECT_EQ(handler.results.size(), 2u);
  EXPECT_TRUE(first.expired());
  EXPECT_EQ(control.State(), STATE_BEGIN);
}

TEST(JobControlRun, CancelInsideTheHandlerStaysForTheNextRun) {
  Stage stage;
  stage.handler.in_completed = [&] { stage.Cancel(); };
  stage.Run();
  stage.Complete({});
  EXPECT_EQ(stage.State(), STATE_CANCEL_SCHEDULED_WAIT_ALL);
  EXPECT_EQ(stage.job_cancels, 0);
}

TEST(JobControlResult, WrapsFailuresInTheTextOfTheRun) {
  Stage stage;
  stage.in_perform = [&] { stage.Complete(Failure()); };
  stage.Run();
  EXPECT_EQ(stage.handler.results[0].GetMessage(), u"Backing up.");

  // A description that fails itself changes nothing.
  stage.description.throws = true;
  stage.Run();
  EXPECT_EQ(Chain(stage.handler.results[1]), std::vector{kFailure});

  // Neither does one that finds no memory, but it is told.
  stage.description.throws = false;
  stage.description.out_of_memory = true;
  stage.Run();
  EXPECT_EQ(Chain(stage.handler.results[2]), std::vector({Common::kOutOfMemoryCode, kFailure}));

  // Nobody to describe.
  stage.control->Run(stage.action, stage.handler, nullptr);
  EXPECT_EQ(Chain(stage.handler.results[3]), std::vector{kFailure});
}

TEST(JobControlResult, FailureOfPerformIsTracedAndNamesTheOperation) {
  TraceRecorder traces;
  Stage stage;
  stage.perform_throws = true;
  stage.Run();
  EXPECT_EQ(stage.handler.results[0].GetMessage(),
            u"ASYNC: Exception has occurred during operation 'Perform'.");
  ASSERT_EQ(traces.Errors().size(), 1u);
  EXPECT_EQ(traces.Errors()[0].code, kExceptionCode);
}

TEST(JobControlResult, ExceptionOfTheHandlerIsTracedAndEndsThere) {
  TraceRecorder traces;
  Stage stage;
  stage.handler.in_completed = [] { throw Failure(); };
  stage.Run();
  stage.Complete({});
  EXPECT_EQ(stage.State(), STATE_BEGIN);
  ASSERT_EQ(traces.Errors().size(), 1u);
  EXPECT_EQ(traces.Errors()[0].code, kExceptionCode);
  EXPECT_NE(traces.Errors()[0].text.find("'Finalize run'"), std::string::npos);
}

TEST(JobControlResult, OtherExceptionsOfPerformLeaveRun) {
  JobControl control;
  FakeHandler handler;
  FakeAction action(
      [](ActionHandler&) -> std::shared_ptr<Job> { throw std::runtime_error("other"); });
  EXPECT_THROW(control.Run(action, handler, nullptr), std::runtime_error);
  EXPECT_TRUE(handler.results.empty());
  EXPECT_EQ(control.State(), STATE_BEGIN);
}

using Texts = std::vector<std::string>;
const Texts kSecondPerform = {"!\"State logic broken. Second Perform() called.\""};
const Texts kSecondCompleted = {"!\"State logic broken. Second Completed() called.\""};

TEST(JobControlContract, ASecondResultIsAssertedAndDropped) {
  struct Case {
    const char* name;
    void (*drive)(Stage&);
    Texts assertions;
  };
  const Case cases[] = {
      {"before Perform has returned",
       [](Stage& s) {
         s.in_perform = [&s] {
           s.Complete({});
           s.Complete({});
         };
         s.Run();
       },
       kSecondCompleted},
      {"with a cancel pending",
       [](Stage& s) {
         s.in_perform = [&s] {
           s.Cancel();
           s.Complete({});
           s.Complete({});
         };
         s.Run();
       },
       kSecondCompleted},
      {"inside Job::Cancel on the thread of Run",
       [](Stage& s) {
         s.in_perform = [&s] { s.Cancel(); };
         s.in_job_cancel = [&s] {
           s.Complete({});
           s.Complete({});
         };
         s.Run();
       },
       kSecondCompleted},
      {"inside Job::Cancel on the thread of Cancel",
       [](Stage& s) {
         s.Run();
         s.in_job_cancel = [&s] {
           s.Complete({});
           s.Complete({});
         };
         s.Cancel();
       },
       {"!\"State logic broken. Second Completed() called?\""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TraceRecorder traces;
    Stage stage;
    c.drive(stage);
    EXPECT_EQ(traces.Assertions(), c.assertions);
    EXPECT_EQ(stage.handler.results.size(), 1u);
  }
}

TEST(JobControlContract, ASecondRunIsAssertedAndTheStateStays) {
  struct Case {
    const char* name;
    void (*drive)(Stage&);  // up to the moment of the second Run
    JobState state;
  };
  const Case cases[] = {
      {"running", [](Stage& s) { s.Run(); }, STATE_PERFORMED_WAIT_COMPLETED},
      {"cancelled",
       [](Stage& s) {
         s.Run();
         s.Cancel();
       },
       STATE_CANCEL_DONE_WAIT_COMPLETED},
  };
  for (const bool fails : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      TraceRecorder traces;
      Stage stage;
      c.drive(stage);
      stage.perform_throws = fails;
      stage.Run();
      EXPECT_EQ(traces.Assertions(), kSecondPerform);
      EXPECT_EQ(stage.State(), c.state);
      stage.Complete({});
      EXPECT_EQ(stage.handler.results.size(), 1u);
    }
    SCOPED_TRACE("inside Job::Cancel");
    TraceRecorder traces;
    Stage stage;
    stage.Run();
    stage.in_job_cancel = [&] {
      stage.perform_throws = fails;
      stage.Run();
      EXPECT_EQ(stage.State(), STATE_CANCELLING);
      stage.Complete({});
      stage.Run();
      EXPECT_EQ(stage.State(), STATE_CANCELLING_COMPLETED);
    };
    stage.Cancel();
    EXPECT_EQ(traces.Assertions(), Texts({kSecondPerform[0], kSecondPerform[0]}));
    EXPECT_EQ(stage.handler.results.size(), 1u);
  }
}

TEST(JobControlContract, DestructionDuringARunIsAsserted) {
  TraceRecorder traces;
  {
    Stage stage;
    stage.Run();
  }
  EXPECT_EQ(traces.Assertions(),
            Texts({"(state == STATE_BEGIN || state == STATE_CANCEL_SCHEDULED_WAIT_ALL) && "
                   "\"Premature JobControl destruction.\""}));
}

}  // namespace
}  // namespace Async
