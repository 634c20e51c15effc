#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job_control.h"
#ifdef PLANTED_FAULTS
#include "tests/enterprise/common/async/planted_fault.h"
// Keep this order.
#include "planted/job_control_inl.h"
#else
#include "enterprise/common/async/job_control_inl.h"
#endif
#include "tests/enterprise/common/async/interleaving_explorer.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::Failure;
using Testing::InterleavingExplorer;
using Testing::TraceRecorder;

InterleavingExplorer* explorer = nullptr;
// Whether the one control of the scenario still exists.
bool control_alive = false;

// A hash of that control.
std::uint64_t HashControl();

// The state word of a control under exploration: every access is a point.
struct ModelAtomics {
#ifdef PLANTED_FAULTS
  static inline PlantedFault fault = PlantedFault::kNone;
#endif
  class Word {
   public:
    explicit Word(std::uintptr_t value) : value_(value) {}

    std::uintptr_t load() const {
      Enter();
      explorer->Glance(value_);  // no event step keeps a state beyond its next look
      return value_;
    }
    bool compare_exchange_strong(std::uintptr_t& expected, std::uintptr_t desired) {
      Enter();
      const bool equal = value_ == expected;
      if (equal) {
        value_ = desired;
        // The winner may hold a result that it has taken out of the control.
        explorer->Remember(
            InterleavingExplorer::Mix(expected * kJobStateCount + desired, HashControl()));
      } else {
        explorer->Glance(kJobStateCount);
      }
      return equal;
    }
    std::uintptr_t Peek() const { return value_; }

   private:
    static void Enter() {
      explorer->Point();
      if (!control_alive) explorer->Abort("the state word of a destroyed control is used");
    }

    std::uintptr_t value_;
  };

  // Correct users never come here.
  static void Pause() {
    explorer->Abort("an event meets a run that is being finished");
  }

  // The plain fields, as far as they differ between schedules.
  template <class Control>
  static std::uint64_t Hash(const Control& hashed) {
    std::uint64_t hash = hashed.state_.Peek();
    hash = InterleavingExplorer::Mix(hash, hashed.handler_ != nullptr);
    hash = InterleavingExplorer::Mix(hash, hashed.job_ != nullptr);
    const std::uint64_t code = hashed.result_ ? hashed.result_->GetCode() : 1;
    return InterleavingExplorer::Mix(hash, code);
  }
};

using ModelControl = BasicJobControl<ModelAtomics>;

std::unique_ptr<ModelControl> control;

std::uint64_t HashControl() {
  return control ? ModelAtomics::Hash(*control) : 0;
}

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
class Cycle : public InterleavingExplorer::Scenario, public ActionHandler, public Action {
 public:
  explicit Cycle(const Situation& situation) : situation_(situation) {
    control = std::make_unique<ModelControl>();
    control_alive = true;
    // One reference for the run, one for the thread that starts it, one for each that cancels.
    ledger_.references = 2 + situation.cancellers;
  }

  std::vector<std::function<void()>> Threads() override {
    std::vector<std::function<void()>> threads = {[this] { RunAll(); }, [this] { EndWork(); }};
    for (int i = 0; i < situation_.cancellers; ++i) threads.push_back([this] { CancelOnce(); });
    return threads;
  }

  std::uint64_t Snapshot() const override {
    std::uint64_t hash = 0;
    for (const int value : ledger_.AsArray()) {
      hash = InterleavingExplorer::Mix(hash, static_cast<std::uint64_t>(value));
    }
    return InterleavingExplorer::Mix(hash, HashControl());
  }

  void Check() override {
    int told = 0;
    int canceled = ledger_.last_state == STATE_CANCEL_SCHEDULED_WAIT_ALL;
    int job_cancels = 0;
    for (const Run& run : ledger_.runs) {
      told += run.told;
      canceled += run.told_canceled;
      job_cancels += run.job_cancels;
      Expect(run.job_cancels <= 1, "Job::Cancel comes once per run");
      Expect(run.told <= 1, "a run is told once");
    }
    Expect(told == ledger_.run + 1, "every run is told");
    Expect(control == nullptr, "the control is released");
    Expect(
        ledger_.last_state == STATE_BEGIN || ledger_.last_state == STATE_CANCEL_SCHEDULED_WAIT_ALL,
        "the last state is idle");
    Expect(job_cancels <= ledger_.cancels, "one Cancel reaches one run");
    Expect(canceled <= ledger_.cancels, "one Cancel ends one run");
    // A failed Perform is allowed to use a cancel up.
    if (!situation_.perform_fails)
      Expect(ledger_.cancels == 0 || canceled > 0, "no cancel is lost");
    if (ledger_.cancels == 0) Expect(canceled == 0, "nothing is cancelled by itself");
  }

 private:
  struct Run {
    int performed, ended, cancel_seen, in_job_cancel, job_cancels, told, told_canceled;
  };
  struct Ledger {
    int run, references, finished, inside[4], cancels, last_state;
    Run runs[kRuns];

    std::array<int, sizeof(int[9]) / sizeof(int) + kRuns * sizeof(Run) / sizeof(int)> AsArray()
        const {
      std::array<int, 9 + kRuns * 7> values;
      static_assert(sizeof(values) == sizeof(Ledger));
      std::memcpy(values.data(), this, sizeof(values));
      return values;
    }
  };

  class ModelJob : public BaseJob {
   public:
    ModelJob(Cycle& cycle, int run) : cycle_(cycle), run_(run) {}
    ~ModelJob() override {
      cycle_.Expect(cycle_.ledger_.runs[run_].in_job_cancel == 0, "a job dies outside its Cancel");
    }
    void Cancel() override { cycle_.CancelJob(run_); }

   private:
    Cycle& cycle_;
    const int run_;
  };

  void Expect(bool good, const char* rule) {
    if (!good) explorer->Fail(std::string("broken: ") + rule);
  }

  // Thread 0
  void RunAll() {
    control->Run(*this, *this, nullptr);
    if (!situation_.on_stack) {
      Release();
      return;
    }
    explorer->Await([this] {
      for (const int inside : ledger_.inside) {
        if (inside != 0) return false;
      }
      return ledger_.finished != 0;
    });
    Destroy();
  }

  // Thread 1
  void EndWork() {
    for (int run = 0; run < kRuns; ++run) {
      explorer->Await([this, run] {
        return ledger_.runs[run].performed != 0 || ledger_.finished != 0 || ledger_.run > run;
      });
      Run& work = ledger_.runs[run];
      if (work.performed == 0 || work.ended != 0) {
        explorer->Remember(2);
        continue;
      }
      work.ended = 1;
      const bool canceled = work.cancel_seen != 0 && situation_.kind == JobKind::kHonours;
      explorer->Remember(canceled);
      control->Completed(canceled ? Failure(kCanceledCode) : Common::Error());
    }
  }

  // Threads 2 and 3
  void CancelOnce() {
    explorer->Point();
    explorer->Remember(1);
    if (situation_.on_stack && ledger_.finished != 0) return;
    int& inside = ledger_.inside[explorer->Current()];
    inside = 1;
    ++ledger_.cancels;
    control->Cancel();
    inside = 0;
    if (!situation_.on_stack) Release();
  }

  // Action
  std::shared_ptr<Job> Perform(ActionHandler&) override {
    const int number = ledger_.run;
    Run& run = ledger_.runs[number];
    if (situation_.perform_fails && number == 0) {
      explorer->Remember(5);
      throw Failure();
    }
    run.performed = 1;
    explorer->Remember(6);
    if (situation_.kind == JobKind::kNone) return nullptr;
    return std::make_shared<ModelJob>(*this, number);
  }

  void CancelJob(int number) {
    Run& run = ledger_.runs[number];
    ++run.job_cancels;
    ++run.in_job_cancel;
    Expect(run.told == 0, "Job::Cancel comes before the end of its run");
    explorer->Point();
    explorer->Remember(2);
    run.cancel_seen = 1;
    if (situation_.kind == JobKind::kCompletes && run.ended == 0) {
      run.ended = 1;
      control->Completed(Failure(kCanceledCode));
    }
    explorer->Point();
    explorer->Remember(3);
    --run.in_job_cancel;
  }

  // ActionHandler
  void Completed(Common::Error result) override {
    explorer->Remember(7);
    Run& run = ledger_.runs[ledger_.run];
    ++run.told;
    run.told_canceled = result.HoldsCode(kCanceledCode);
    Expect(run.in_job_cancel == 0, "no run is finished while its Job::Cancel runs");
    if (!result.IsFailure() && ledger_.run + 1 < kRuns) {
      ++ledger_.run;
      control->Run(*this, *this, nullptr);
      return;
    }
    ledger_.finished = 1;
    if (!situation_.on_stack) {
      Release();
      return;
    }
    // From here on this thread is on its way out and holds nobody up.
    ledger_.inside[explorer->Current()] = 0;
    explorer->Point();
    explorer->Remember(4);
  }

  void Release() {
    if (--ledger_.references == 0) Destroy();
  }

  void Destroy() {
    ledger_.last_state = static_cast<int>(control->State());
    explorer->Remember(8);
    control.reset();
    control_alive = false;
  }

  const Situation situation_;
  Ledger ledger_{};
};

#ifndef PLANTED_FAULTS

class JobControlInterleavings : public ::testing::Test {
 protected:
  void Explore(const Situation& situation) {
    TraceRecorder traces;
    InterleavingExplorer all;
    explorer = &all;
    EXPECT_EQ(all.Explore([&] { return std::make_unique<Cycle>(situation); }), "");
    EXPECT_TRUE(traces.Assertions().empty());
    // Far fewer would mean that the threads no longer meet.
    EXPECT_GT(all.Schedules(), 100u);
    RecordProperty("schedules", static_cast<int>(all.Schedules()));
    explorer = nullptr;
  }
};

TEST_F(JobControlInterleavings, NoJob) {
  Explore({JobKind::kNone});
}
TEST_F(JobControlInterleavings, JobIgnoresItsCancel) {
  Explore({JobKind::kIgnores});
}
TEST_F(JobControlInterleavings, JobHonoursItsCancel) {
  Explore({JobKind::kHonours});
}
TEST_F(JobControlInterleavings, JobCompletesInsideItsCancel) {
  Explore({JobKind::kCompletes});
}
TEST_F(JobControlInterleavings, PerformFails) {
  Explore({JobKind::kHonours, 2, true});
}
TEST_F(JobControlInterleavings, OneCancelIgnored) {
  Explore({JobKind::kIgnores, 1});
}
TEST_F(JobControlInterleavings, OneCancelHonoured) {
  Explore({JobKind::kHonours, 1});
}
TEST_F(JobControlInterleavings, DestroyedUnderTheTellingThread) {
  Explore({JobKind::kHonours, 1, false, true});
  Explore({JobKind::kCompletes, 2, false, true});
}

#else  // PLANTED_FAULTS: the same sources with faults, which have to be found

void ExploreWith(PlantedFault fault) {
  ModelAtomics::fault = fault;
  InterleavingExplorer all;
  explorer = &all;
  EXPECT_EQ(all.Explore([] {
    return std::make_unique<Cycle>(Situation{JobKind::kIgnores, 1});
  }),
            "");
  explorer = nullptr;
}

TEST(PlantedJobControlFaultDeathTest, ADroppedRowOfTheTableIsFound) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(ExploreWith(PlantedFault::kRowDropped), "the schedule never ends; schedule 0");
}

TEST(PlantedJobControlFaultDeathTest, SwappedStepsOfFinishRunAreFound) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(ExploreWith(PlantedFault::kTellsFirst),
               "an event meets a run that is being finished; schedule 0");
}

TEST(PlantedJobControlFaultDeathTest, TheSameScenarioPassesWithoutThem) {
  ExploreWith(PlantedFault::kNone);
}

#endif

}  // namespace
}  // namespace Async
