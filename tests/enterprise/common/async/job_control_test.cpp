#include "enterprise/common/async/job_control.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

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

// One run on a control that the handler may destroy. Events are fired outside and from inside the
// calls out, as scripts say:
//   R  Run      s f  Completed with success, a failure               0-9  this is the state now
//   c  Cancel   x w  the same with the cancel error, bare, wrapped
//   j  Perform returns no job from now on                            t    it throws from now on
class Stage {
 public:
  void Play(const std::string& script) {
    Common::Error wrapped = Failure();
    wrapped.SetReason(Failure(kCanceledCode));
    for (const char event : script) {
      if (event == 'R') control->Run(action, handler, &description);
      if (event == 'c') control->Cancel();
      if (event == 's') control->Completed({});
      if (event == 'f') control->Completed(Failure());
      if (event == 'x') control->Completed(Failure(kCanceledCode));
      if (event == 'w') control->Completed(wrapped);
      if (event == 'j') returns_job_ = false;
      if (event == 't') perform_throws = true;
      if (event <= '9') {
        EXPECT_EQ(control->State(), static_cast<JobState>(event - '0'));
      }
    }
  }

  std::string in_perform, in_job_cancel;
  bool perform_throws = false;
  bool destroy_when_told = false;

  std::unique_ptr<JobControl> control = std::make_unique<JobControl>();
  FakeHandler handler;
  JobState state_when_told{};
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
    inside_perform_ = true;
    Play(in_perform);
    inside_perform_ = false;
    if (perform_throws) throw Failure(0x55);
    if (!returns_job_) return nullptr;
    return std::make_shared<FakeJob>([this] {
      EXPECT_FALSE(inside_perform_);
      ++job_cancels;
      inside_job_cancel_ = true;
      Play(in_job_cancel);
      inside_job_cancel_ = false;
    });
  }};

  Stage() {
    handler.in_completed = [this] {
      EXPECT_FALSE(inside_perform_);
      EXPECT_FALSE(inside_job_cancel_);
      state_when_told = control->State();
      if (destroy_when_told) control.reset();
    };
  }

 private:
  bool returns_job_ = true;
  bool inside_perform_ = false;
  bool inside_job_cancel_ = false;
};

struct Way {
  const char* name;
  const char* script;
  const char* in_perform;
  const char* in_job_cancel;
  std::vector<std::uint32_t> chain;  // codes that the handler gets; empty: success
  JobState after;
  int job_cancels;
};

constexpr std::uint32_t kDescribed = kDescribedJobCode;
constexpr JobState kFree = STATE_BEGIN;
constexpr JobState kPending = STATE_CANCEL_SCHEDULED_WAIT_ALL;

// Every way through a run that one thread can take.
const Way kWays[] = {
    {"the bare error after Perform", "R1f", "", "", {kFailure}, kFree, 0},
    {"completed inside Perform", "R", "f2", "", {kDescribed, kFailure}, kFree, 0},
    {"cancelled before Run", "c3R", "", "", {kCanceledCode}, kFree, 0},
    {"cancel inside Perform, no job", "jR4cs", "c", "", {}, kPending, 0},
    {"cancel inside Perform", "R4x", "c", "6c", {kDescribed, kCanceledCode}, kFree, 1},
    {"the same, honoured at once", "R", "c", "x7c", {kDescribed, kCanceledCode}, kFree, 1},
    {"the same, failing at once", "R", "c", "f", {kDescribed, kFailure}, kPending, 1},
    {"completed, then cancel inside Perform", "R", "sc5c", "", {}, kPending, 0},
    // The cancel stays pending though the result is a cancellation.
    {"cancel, completed inside Perform", "R", "cx5", "", {kDescribed, kCanceledCode}, kPending, 0},
    // The mark may stand anywhere in the chain. A cancel inside Job::Cancel changes nothing.
    {"cancelled", "Rc4cw", "", "8c8", {kDescribed, kFailure, kCanceledCode}, kFree, 1},
    {"cancelled in vain", "Rcs", "", "", {}, kPending, 1},
    {"cancelled without a job", "jRc4f", "", "", {kDescribed, kFailure}, kPending, 0},
    {"cancelled, honoured at once", "Rc", "", "x9c9", {kDescribed, kCanceledCode}, kFree, 1},
    {"cancelled, success at once", "Rc", "", "s", {}, kPending, 1},
    {"Perform fails", "tR", "", "", {kExceptionCode, 0x55}, kFree, 0},
    {"Perform fails after its result", "tR", "s", "", {kExceptionCode, 0x55}, kFree, 0},
    {"Perform fails with a cancel pending", "tR", "c", "", {kExceptionCode, 0x55}, kFree, 0},
    {"Perform fails after cancel and result", "tR", "cs", "", {kExceptionCode, 0x55}, kFree, 0},
};

void Drive(Stage& stage, const Way& way) {
  stage.in_perform = way.in_perform;
  stage.in_job_cancel = way.in_job_cancel;
  stage.Play(way.script);
}

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
    Drive(stage, way);
    ASSERT_EQ(stage.handler.results.size(), 1u);
    EXPECT_EQ(Chain(stage.handler.results[0]), way.chain);
    EXPECT_EQ(stage.state_when_told, way.after);
    EXPECT_EQ(stage.control->State(), way.after);
    EXPECT_EQ(stage.job_cancels, way.job_cancels);

    // A cancel that is left over ends the next run before its Perform, and is used up by that.
    const int performs = stage.action.performs;
    stage.in_perform = stage.in_job_cancel = "";
    stage.perform_throws = false;
    stage.Play("R");
    if (way.after == kPending) {
      ASSERT_EQ(stage.handler.results.size(), 2u);
      EXPECT_EQ(Chain(stage.handler.results[1]), std::vector{kCanceledCode});
      EXPECT_EQ(stage.action.performs, performs);
    } else {
      EXPECT_EQ(stage.handler.results.size(), 1u);
      stage.Play("1s");
    }
    stage.Play("0");
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
    Drive(stage, way);
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

TEST(JobControlResult, WrapsFailuresInTheTextOfTheRun) {
  Stage stage;
  stage.in_perform = "f";
  stage.Play("R");
  EXPECT_EQ(stage.handler.results[0].GetMessage(), u"Backing up.");

  // A description that fails itself changes nothing.
  stage.description.throws = true;
  stage.Play("R");
  EXPECT_EQ(Chain(stage.handler.results[1]), std::vector{kFailure});

  // Neither does one that finds no memory, but it is told.
  stage.description.throws = false;
  stage.description.out_of_memory = true;
  stage.Play("R");
  EXPECT_EQ(Chain(stage.handler.results[2]), std::vector({Common::kOutOfMemoryCode, kFailure}));

  // Nobody to describe.
  stage.control->Run(stage.action, stage.handler, nullptr);
  EXPECT_EQ(Chain(stage.handler.results[3]), std::vector{kFailure});
}

TEST(JobControlResult, ExceptionsOfPerformAndOfTheHandlerAreTracedAndNameTheOperation) {
  TraceRecorder traces;
  Stage stage;
  stage.Play("tR");
  EXPECT_EQ(stage.handler.results[0].GetMessage(),
            u"ASYNC: Exception has occurred during operation 'Perform'.");
  ASSERT_EQ(traces.Errors().size(), 1u);
  EXPECT_EQ(traces.Errors()[0].code, kExceptionCode);

  stage.perform_throws = false;
  stage.handler.in_completed = [] { throw Failure(); };
  stage.Play("Rs0");
  ASSERT_EQ(traces.Errors().size(), 2u);
  EXPECT_EQ(traces.Errors()[1].code, kExceptionCode);
  EXPECT_NE(traces.Errors()[1].text.find("'Finalize run'"), std::string::npos);
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

// Whoever breaks the contract gets an assertion; the run goes on to its one end.
TEST(JobControlContract, ASecondResultOrRunIsAssertedAndDropped) {
  const std::string result = "!\"State logic broken. Second Completed() called.\"";
  const std::string late_result = "!\"State logic broken. Second Completed() called?\"";
  const std::string run = "!\"State logic broken. Second Perform() called.\"";
  const struct {
    const char* script;
    const char* in_perform;
    const char* in_job_cancel;
    std::vector<std::string> assertions;
  } cases[] = {
      {"R", "ss", "", {result}},
      {"R", "css", "", {result}},
      {"R", "c", "ss", {result}},
      {"Rc", "", "ss", {late_result}},
      // The second one also with a Perform that fails.
      {"RR1s", "", "", {run}},
      {"RtR1s", "", "", {run}},
      {"RcR4s", "", "", {run}},
      {"RctR4s", "", "", {run}},
      {"Rc", "", "R8sR9", {run, run}},
      {"Rc", "", "tR8sR9", {run, run}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.script << ' ' << c.in_perform << ' ' << c.in_job_cancel);
    TraceRecorder traces;
    Stage stage;
    stage.in_perform = c.in_perform;
    stage.in_job_cancel = c.in_job_cancel;
    stage.Play(c.script);
    EXPECT_EQ(traces.Assertions(), c.assertions);
    EXPECT_EQ(stage.handler.results.size(), 1u);
  }
}

// A run inside the Perform of another one takes the handler away with its end.
TEST(JobControlContract, AnEndWithoutAHandlerIsTraced) {
  JobControl control;
  FakeHandler handler;
  FakeAction inner([](ActionHandler&) { return nullptr; });
  FakeAction outer([&](ActionHandler&) {
    control.Run(inner, handler, nullptr);
    control.Completed({});
    return nullptr;
  });
  const TraceRecorder traces;
  control.Run(outer, handler, nullptr);
  EXPECT_EQ(handler.results.size(), 1u);
  control.Completed({});
  EXPECT_EQ(handler.results.size(), 1u);
  EXPECT_EQ(control.State(), STATE_BEGIN);
  ASSERT_EQ(traces.Errors().size(), 1u);
  EXPECT_EQ(traces.Errors()[0].code, 0xF90015u);
  EXPECT_NE(
      traces.Errors()[0].text.find("Can't perform JobControl::SafeFinishRun with null handler."),
      std::string::npos);
}

TEST(JobControlContract, DestructionDuringARunIsAsserted) {
  TraceRecorder traces;
  Stage().Play("R");
  EXPECT_EQ(traces.Assertions(),
            std::vector<std::string>{
                "(state == STATE_BEGIN || state == STATE_CANCEL_SCHEDULED_WAIT_ALL) && "
                "\"Premature JobControl destruction.\""});
}

}  // namespace
}  // namespace Async
