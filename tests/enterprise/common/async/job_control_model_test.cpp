#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "tests/enterprise/common/async/model_atomics.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using namespace Testing;

constexpr int kRuns = 2;

// What Job::Cancel does.
enum class JobKind {
  kNone,       // Perform returns no job
  kIgnores,    // the work ends with success all the same
  kHonours,    // the work ends with the cancel error, told by its own thread
  kCompletes,  // tells the cancel error inside Job::Cancel, unless the work has just ended
};

struct Situation {
  JobKind kind = JobKind::kIgnores;
  int cancellers = 2;
  bool perform_fails = false;  // in the first run
  // Thread 0 waits for the handler and destroys the control at once, under the thread that tells;
  // otherwise whoever drops the last reference destroys it.
  bool on_stack = false;
};

// Thread 0 runs, thread 1 is the work that ends, threads 2 and 3 cancel. The handler starts the
// second run after a success. The result of each run may come before Perform has returned.
class Cycle : public ModelScenario, public ActionHandler, public Action {
 public:
  static constexpr std::size_t kFewestSchedules = 100;

  // One reference for the run, one for the thread that starts it, one for each that cancels.
  explicit Cycle(const Situation& situation)
      : situation_(situation), references_(2 + situation.cancellers) {}

  std::vector<std::function<void()>> Threads() override {
    std::vector<std::function<void()>> threads = {[this] { RunAll(); }, [this] { EndWork(); }};
    threads.resize(2 + static_cast<std::size_t>(situation_.cancellers), [this] { CancelOnce(); });
    return threads;
  }

  std::uint64_t Snapshot() const override {
    std::uint64_t hash =
        MixAll(ModelObject::SnapshotAll(), {run_, references_, finished_, cancels_, last_state_});
    hash = MixAll(hash, inside_);
    for (const Run& run : runs_) {
      hash = MixAll(hash, {run.performed, run.ended, run.cancel_seen, run.in_job_cancel,
                           run.job_cancels, run.told, run.told_canceled});
    }
    return hash;
  }

  void Check() override {
    int told = 0;
    int canceled = last_state_ == STATE_CANCEL_SCHEDULED_WAIT_ALL;
    int job_cancels = 0;
    for (const Run& run : runs_) {
      told += run.told;
      canceled += run.told_canceled;
      job_cancels += run.job_cancels;
      Expect(run.job_cancels <= 1, "Job::Cancel comes once per run");
      Expect(run.told <= 1, "a run is told once");
    }
    Expect(told == run_ + 1, "every run is told");
    Expect(control_ == nullptr, "the control is released");
    Expect(last_state_ == STATE_BEGIN || last_state_ == STATE_CANCEL_SCHEDULED_WAIT_ALL,
           "the last state is idle");
    Expect(job_cancels <= cancels_, "one Cancel reaches one run");
    Expect(canceled <= cancels_, "one Cancel ends one run");
    // A failed Perform is allowed to use a cancel up.
    if (!situation_.perform_fails) Expect(cancels_ == 0 || canceled > 0, "no cancel is lost");
    if (cancels_ == 0) Expect(canceled == 0, "nothing is cancelled by itself");
  }

 private:
  struct Run {
    int performed, ended, cancel_seen, in_job_cancel, job_cancels, told, told_canceled;
  };

  // Thread 0
  void RunAll() {
    control_->Run(*this, *this, nullptr);
    if (!situation_.on_stack) {
      Release();
      return;
    }
    Explorer().Await([this] { return finished_ != 0 && inside_ == std::vector<int>(4); });
    Destroy();
  }

  // Thread 1
  void EndWork() {
    for (int run = 0; run < kRuns; ++run) {
      Explorer().Await(
          [this, run] { return runs_[run].performed != 0 || finished_ != 0 || run_ > run; });
      Run& work = runs_[run];
      if (work.performed == 0 || work.ended != 0) {
        Explorer().Remember(2);
        continue;
      }
      work.ended = 1;
      const bool canceled = work.cancel_seen != 0 && situation_.kind == JobKind::kHonours;
      Explorer().Remember(canceled);
      control_->Completed(canceled ? Failure(kCanceledCode) : Common::Error());
    }
  }

  // Threads 2 and 3
  void CancelOnce() {
    Explorer().Point();
    Explorer().Remember(1);
    if (situation_.on_stack && finished_ != 0) return;
    int& inside = inside_[static_cast<std::size_t>(Explorer().Current())];
    inside = 1;
    ++cancels_;
    control_->Cancel();
    inside = 0;
    if (!situation_.on_stack) Release();
  }

  // Action
  std::shared_ptr<Job> Perform(ActionHandler&) override {
    const int number = run_;
    Run& run = runs_[number];
    if (situation_.perform_fails && number == 0) {
      Explorer().Remember(5);
      throw Failure();
    }
    run.performed = 1;
    Explorer().Remember(6);
    if (situation_.kind == JobKind::kNone) return nullptr;
    return std::make_shared<JobWithAnEnd>(
        [&run] { Expect(run.in_job_cancel == 0, "a job dies outside its Cancel"); },
        [this, &run] { CancelJob(run); });
  }

  void CancelJob(Run& run) {
    ++run.job_cancels;
    ++run.in_job_cancel;
    Expect(run.told == 0, "Job::Cancel comes before the end of its run");
    Explorer().Point();
    Explorer().Remember(2);
    run.cancel_seen = 1;
    if (situation_.kind == JobKind::kCompletes && run.ended == 0) {
      run.ended = 1;
      control_->Completed(Failure(kCanceledCode));
    }
    Explorer().Point();
    Explorer().Remember(3);
    --run.in_job_cancel;
  }

  // ActionHandler
  void Completed(Common::Error result) override {
    Explorer().Remember(7);
    Run& run = runs_[run_];
    ++run.told;
    run.told_canceled = result.HoldsCode(kCanceledCode);
    Expect(run.in_job_cancel == 0, "no run is finished while its Job::Cancel runs");
    if (!result.IsFailure() && run_ + 1 < kRuns) {
      ++run_;
      control_->Run(*this, *this, nullptr);
      return;
    }
    finished_ = 1;
    if (!situation_.on_stack) {
      Release();
      return;
    }
    // From here on this thread is on its way out and holds nobody up.
    inside_[static_cast<std::size_t>(Explorer().Current())] = 0;
    Explorer().Point();
    Explorer().Remember(4);
  }

  void Release() {
    if (--references_ == 0) Destroy();
  }

  void Destroy() {
    last_state_ = static_cast<int>(control_->State());
    Explorer().Remember(8);
    control_.reset();
  }

  const Situation situation_;
  std::unique_ptr<BasicJobControl<ModelAtomics>> control_ =
      std::make_unique<BasicJobControl<ModelAtomics>>();
  Run runs_[kRuns] = {};
  int run_ = 0, references_, finished_ = 0, cancels_ = 0, last_state_ = 0;
  std::vector<int> inside_ = std::vector<int>(4);  // of each thread, whether it calls the control
};

#ifndef PLANTED_FAULTS

class JobControlInterleavings : public testing::TestWithParam<Situation> {};

INSTANTIATE_TEST_SUITE_P(
    , JobControlInterleavings,
    testing::Values(Situation{JobKind::kNone}, Situation{JobKind::kIgnores},
                    Situation{JobKind::kHonours}, Situation{JobKind::kCompletes},
                    Situation{JobKind::kHonours, 2, true}, Situation{JobKind::kIgnores, 1},
                    Situation{JobKind::kHonours, 1}, Situation{JobKind::kHonours, 1, false, true},
                    Situation{JobKind::kCompletes, 2, false, true}));

TEST_P(JobControlInterleavings, KeepTheRules) {
  TraceRecorder traces;
  EXPECT_EQ(Explore<Cycle>(GetParam()), "");
  EXPECT_TRUE(traces.Assertions().empty());
}

#else

constexpr Situation kOneCancelIgnored{JobKind::kIgnores, 1};

TEST(PlantedJobControlFaultDeathTest, ADroppedRowOfTheTableIsFound) {
  ExpectFound<Cycle>(PlantedFault::kRowDropped, "the schedule never ends", kOneCancelIgnored);
}

TEST(PlantedJobControlFaultDeathTest, SwappedStepsOfFinishRunAreFound) {
  ExpectFound<Cycle>(PlantedFault::kTellsFirst, "an event meets a run that is being finished",
                     kOneCancelIgnored);
}

#endif

}  // namespace
}  // namespace Async
