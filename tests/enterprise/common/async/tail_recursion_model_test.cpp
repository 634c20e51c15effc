#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/service.h"
#include "tests/enterprise/common/async/model_atomics.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using namespace Testing;

// How the wait for a tick takes its cancel.
enum WaitKind {
  kTellsInCancel,  // ends inside Job::Cancel
  kTellsLater,     // the thread that ticks tells the cancel error
  kIgnores,        // it ends with the tick
  kTicksAtOnce,    // inside WaitTick
};

// An async service whose threads are those of the scenario that call PerformOne, TickOne and Beat.
// With beats it makes so many of them.
class ModelService final : public Service,
                           private MetronomeSource,
                           private Metronome,
                           private Beats {
 public:
  explicit ModelService(WaitKind kind, bool shows_beats = false)
      : kind_(kind), shows_beats_(shows_beats) {}

  Metronome* GetMetronome(unsigned int) override { return this; }
  bool HasWork() const { return !queue_.empty(); }
  bool HasWaits() const { return !waiting_.empty(); }
  bool HasWatches() const { return !watching_.empty(); }
  bool HasBeatsOrWaits() const { return (HasWatches() && beats_left != 0) || HasWaits(); }

  void PerformOne() {
    const Entry entry = queue_.front();
    queue_.pop_front();
    Explorer().Remember(entry.hash);
    entry.handler->Completed(entry.work->Execute());
  }
  void TickOne() {
    const std::shared_ptr<Wait> wait = waiting_.front();
    waiting_.pop_front();
    Explorer().Remember(wait->hash);
    Explorer().Remember(wait->canceled);
    wait->handler.Completed(wait->canceled ? Failure(kCanceledCode) : Common::Error());
  }
  void BeatOrTick() {
    if (HasWaits()) {
      TickOne();
    } else {
      Beat();
    }
  }
  void Beat() {
    const std::shared_ptr<Wait> wait = watching_.front();
    Explorer().Remember(wait->hash);
    --beats_left;
    looks_at_watch_ = 1;
    const bool ticks = wait->watcher->OnBeat();
    looks_at_watch_ = 0;
    Explorer().Remember(ticks);
    if (ticks) {
      if (on_tick) on_tick();
      watching_.pop_front();
    }
    ++beats;
    if (ticks) wait->handler.Completed({});
  }
  std::uint64_t Snapshot() const {
    std::uint64_t hash = MixAll(0, {beats, beats_left, looks_at_watch_});
    for (const auto& wait : watching_) hash = InterleavingExplorer::Mix(hash, wait->hash);
    for (const Entry& entry : queue_) hash = InterleavingExplorer::Mix(hash, entry.hash);
    for (const auto& wait : waiting_) {
      hash = MixAll(InterleavingExplorer::Mix(hash, wait->hash), {wait->canceled});
    }
    return hash;
  }

  std::shared_ptr<Job> PerformWork(Work& work, ActionHandler& handler) override {
    Explorer().Point();
    Explorer().Remember(20);
    queue_.push_back({&work, &handler, Explorer().History()});
    return nullptr;
  }
  SynchronizationCallbackStorage* GetSynchronizationCallbackStorage() override {
    static TlsSynchronizationCallbackStorage storage;
    return &storage;
  }
  MetronomeSource* GetMetronomeSource() override { return this; }

  int beats = 0;  // that are over
  int beats_left = 0;
  std::function<void()> on_tick;

 private:
  struct Entry {
    Work* work;
    ActionHandler* handler;
    std::uint64_t hash;
  };
  struct Wait : BaseJob {
    Wait(ModelService& owner, ActionHandler& told, BeatWatcher* asked = nullptr)
        : service(owner), handler(told), watcher(asked) {
      Explorer().Remember(21);
      hash = Explorer().History();
    }
    void Cancel() override { service.CancelWait(*this); }

    ModelService& service;
    ActionHandler& handler;
    BeatWatcher* const watcher;
    std::uint64_t hash;
    bool canceled = false;
  };

  std::shared_ptr<Job> WaitTick(ActionHandler& handler) override {
    if (kind_ == kTicksAtOnce) {
      Explorer().Remember(23);
      handler.Completed({});
      return nullptr;
    }
    Explorer().Point();
    const auto wait = std::make_shared<Wait>(*this, handler);
    waiting_.push_back(wait);
    Explorer().Point();  // the tick may come before this call has returned
    Explorer().Remember(22);
    return wait;
  }
  Beats* GetBeats() override { return shows_beats_ ? this : nullptr; }
  std::shared_ptr<Job> Watch(BeatWatcher& watcher, ActionHandler& handler) override {
    Explorer().Point();
    const auto wait = std::make_shared<Wait>(*this, handler, &watcher);
    watching_.push_back(wait);
    Explorer().Remember(24);
    return wait;
  }
  // As under a lock of the beats.
  void CancelWatch(Wait& wait) {
    Explorer().Await([this] { return looks_at_watch_ == 0; });
    const auto at = std::find_if(watching_.begin(), watching_.end(),
                                 [&wait](const auto& other) { return other.get() == &wait; });
    Explorer().Remember(at != watching_.end());
    if (at == watching_.end()) return;
    const std::shared_ptr<Wait> kept = *at;
    watching_.erase(at);
    kept->handler.Completed(Failure(kCanceledCode));
  }
  void CancelWait(Wait& wait) {
    if (wait.watcher != nullptr) return CancelWatch(wait);
    Explorer().Point();
    const auto at = std::find_if(waiting_.begin(), waiting_.end(),
                                 [&wait](const auto& other) { return other.get() == &wait; });
    Explorer().Remember(at != waiting_.end());
    if (at == waiting_.end() || kind_ == kIgnores) return;
    if (kind_ == kTellsLater) {
      wait.canceled = true;
      return;
    }
    const std::shared_ptr<Wait> kept = *at;
    waiting_.erase(at);
    kept->handler.Completed(Failure(kCanceledCode));
  }

  const WaitKind kind_;
  const bool shows_beats_;
  std::deque<Entry> queue_;
  std::deque<std::shared_ptr<Wait>> waiting_;
  std::deque<std::shared_ptr<Wait>> watching_;
  int looks_at_watch_ = 0;
};

// One listener of one wait. Thread 0 owns it, thread 1 ticks, thread 2 may stop it too.
struct ListenerSituation {
  WaitKind kind;
  bool second_stop;
};

class ListenerScenario : public ModelScenario {
 public:
  static constexpr std::size_t kFewestSchedules = 20;

  explicit ListenerScenario(const ListenerSituation& situation)
      : situation_(situation),
        service_(situation.kind),
        listener_(std::make_unique<Listener>(*this)) {}

  std::vector<std::function<void()>> Threads() override {
    std::vector<std::function<void()>> threads = {[this] { Own(); }, [this] { Tick(); }};
    if (situation_.second_stop) threads.push_back([this] { StopToo(); });
    return threads;
  }
  std::uint64_t Snapshot() const override {
    return MixAll(InterleavingExplorer::Mix(ModelObject::SnapshotAll(), service_.Snapshot()),
                  {started_, stops_, owner_done_, in_tick_, ticks_});
  }
  void Check() override {
    Expect(owner_done_ == 1, "Stop returns");
    Expect(ticks_ <= 1, "there is one tick at most");
  }

 private:
  struct Listener : BasicMetronomeListener<ModelAtomics> {
    explicit Listener(ListenerScenario& owner) : scenario(owner) {}
    bool Tick() override {
      scenario.RunTick();
      return false;
    }
    ListenerScenario& scenario;
  };

  int WantedStops() const { return situation_.second_stop ? 2 : 1; }

  void Own() {
    Expect(listener_->Start(service_.GetMetronome(1)), "a first Start is good");
    started_ = 1;
    listener_->Stop();
    ++stops_;
    if (situation_.second_stop) Explorer().Await([this] { return stops_ == WantedStops(); });
    Expect(in_tick_ == 0, "no tick runs behind Stop");
    listener_.reset();
    owner_done_ = 1;
  }
  void StopToo() {
    Explorer().Await([this] { return started_ != 0; });
    listener_->Stop();
    ++stops_;
  }
  void Tick() {
    for (;;) {
      Explorer().Await([this] { return service_.HasWaits() || owner_done_ != 0; });
      Explorer().Remember(service_.HasWaits());
      if (!service_.HasWaits()) return;
      service_.TickOne();
    }
  }
  void RunTick() {
    Expect(stops_ < WantedStops(), "no tick comes behind Stop");
    ++ticks_;
    in_tick_ = 1;
    Explorer().Point();
    Explorer().Remember(30);
    Expect(stops_ < WantedStops(), "Stop waits for the tick");
    in_tick_ = 0;
  }

  const ListenerSituation situation_;
  ModelService service_;
  std::unique_ptr<Listener> listener_;
  int started_ = 0, stops_ = 0, owner_done_ = 0, in_tick_ = 0, ticks_ = 0;
};

enum StepKind {
  kInside,     // completes inside its Perform
  kElsewhere,  // thread 1 completes it, maybe before Perform has returned
  kLater,      // thread 0 completes it when it has left its loop
  kBlocks,     // completes inside, and its thread blocks behind that until the next one has begun
  kStalls,     // the same without a word to its callbacks
};

enum ServiceKind { kNoService, kTicks, kBeats };

struct SequenceSituation {
  std::vector<StepKind> steps;
  ServiceKind service;
  bool with_cancel;
  // Beyond the two that a step which stalls is given. Two of them may move the loop to the one
  // thread of the service, where no step must stall.
  int free_beats = 2;
};

// Thread 0 starts and holds the sequence until the handler was told. The others, as needed: thread
// 1 completes steps, one runs the work of the service, one ticks, one cancels.
class SequenceScenario : public ModelScenario, public ActionHandler {
 public:
  static constexpr std::size_t kFewestSchedules = 20;

  explicit SequenceScenario(const SequenceSituation& situation)
      : situation_(situation),
        service_(kTellsInCancel, situation.service == kBeats),
        performed_(situation.steps.size()),
        completed_(situation.steps.size()) {
    service = situation_.service != kNoService ? &service_ : nullptr;
    service_.beats_left = situation_.free_beats;
    service_.on_tick = [this] {
      Expect(service_.beats > ended_at_, "a tick comes a whole interval behind the step");
    };
    SetServiceProvider([](Service** out) { *out = service; });
    starter_ = std::make_shared<Sequence>(*this);
    if (situation_.with_cancel) canceller_ = starter_;
  }
  ~SequenceScenario() override { SetServiceProvider(nullptr); }

  std::vector<std::function<void()>> Threads() override {
    std::vector<std::function<void()>> threads = {[this] { RunAll(); }};
    if (Has(kElsewhere)) threads.push_back([this] { EndSteps(kElsewhere); });
    if (situation_.with_cancel) threads.push_back([this] { CancelOnce(); });
    users_ = static_cast<int>(threads.size());
    if (situation_.service == kNoService) return threads;
    threads.push_back([this] { Serve(&ModelService::HasWork, &ModelService::PerformOne); });
    if (Has(kElsewhere) && situation_.with_cancel) return threads;
    if (situation_.service == kBeats) {
      threads.push_back(
          [this] { Serve(&ModelService::HasBeatsOrWaits, &ModelService::BeatOrTick); });
    } else {
      threads.push_back([this] { Serve(&ModelService::HasWaits, &ModelService::TickOne); });
    }
    return threads;
  }

  std::uint64_t Snapshot() const override {
    std::uint64_t hash = InterleavingExplorer::Mix(ModelObject::SnapshotAll(), service_.Snapshot());
    hash = MixAll(MixAll(hash, performed_), completed_);
    return MixAll(hash, {acquired_, told_, result_canceled_, cancel_, cancel_before_last_, users_,
                         serving_, ended_at_});
  }

  void Check() override {
    Expect(told_ == 1, "the handler is told once");
    Expect(starter_ == nullptr && canceller_ == nullptr && alive_ == 0, "the job is released");
    Expect(!result_canceled_ || cancel_ != 0, "nothing is cancelled by itself");
    Expect(!cancel_before_last_ || result_canceled_, "a cancel before the last step ends it");
    if (!result_canceled_) Expect(performed_.back() == 1, "all steps run");
  }

 private:
  class Sequence : public BasicTailRecursionController<ModelAtomics>,
                   public ActionHandler,
                   public Action,
                   public std::enable_shared_from_this<Sequence> {
   public:
    explicit Sequence(SequenceScenario& scenario) : scenario_(scenario) { ++scenario_.alive_; }
    ~Sequence() override { --scenario_.alive_; }

    std::shared_ptr<void> GetKeepAlive() override { return shared_from_this(); }
    void Iterate() override {
      Expect(scenario_.acquired_ == 0, "one thread holds the controller");
      scenario_.acquired_ = 1;
      control_.Run(*this, *this, nullptr);
    }
    std::shared_ptr<Job> Perform(ActionHandler& handler) override {
      return scenario_.Perform(position_, handler);
    }
    void Completed(Common::Error result) override {
      Expect(scenario_.acquired_ == 1, "a step ends once");
      if (result.IsFailure() || ++position_ == scenario_.performed_.size()) {
        scenario_.Completed(std::move(result));
        return;
      }
      scenario_.acquired_ = 0;
      scenario_.ended_at_ = scenario_.service_.beats;
      Continue();
    }
    void Cancel() { control_.Cancel(); }
    void EndStep() { control_.Completed({}); }

   private:
    SequenceScenario& scenario_;
    std::size_t position_ = 0;
    BasicJobControl<ModelAtomics> control_;
  };

  bool Has(StepKind kind) const {
    return std::count(situation_.steps.begin(), situation_.steps.end(), kind) != 0;
  }

  std::shared_ptr<Job> Perform(std::size_t step, ActionHandler& handler) {
    Expect(step == 0 || performed_[step - 1] == 1, "the steps run in order");
    Expect(++performed_[step] == 1, "a step runs once");
    if (step + 1 == performed_.size() && cancel_ == 2) cancel_before_last_ = 1;
    Explorer().Remember(40);
    const StepKind kind = situation_.steps[step];
    if (kind == kInside || kind == kBlocks || kind == kStalls) handler.Completed({});
    if (kind != kBlocks && kind != kStalls) return nullptr;
    return std::make_shared<JobWithAnEnd>([this, step, kind] {
      if (kind == kBlocks) NotifySynchronization(nullptr);
      if (kind == kStalls) service_.beats_left += 2;
      Explorer().Await([this, step] { return performed_[step + 1] != 0 || told_ != 0; });
    });
  }

  void Completed(Common::Error result) override {
    ++told_;
    result_canceled_ = result.HoldsCode(kCanceledCode);
    Expect(!result.IsFailure() || result_canceled_, "there is no other failure");
    Explorer().Remember(41);
  }

  void RunAll() {
    starter_->Process();
    EndSteps(kLater);
    Explorer().Await([this] { return told_ != 0; });
    starter_.reset();  // under the thread that tells
    --users_;
  }
  void EndSteps(StepKind kind) {
    for (std::size_t step = 0; step < performed_.size(); ++step) {
      if (situation_.steps[step] != kind) continue;
      Explorer().Await([this, step] { return performed_[step] != 0 || told_ != 0; });
      Explorer().Remember(static_cast<std::uint64_t>(performed_[step]));
      if (performed_[step] == 0) break;
      completed_[step] = 1;
      // Safe without a reference: the starter holds one until the handler was told.
      starter_->EndStep();
    }
    if (kind == kElsewhere) --users_;
  }
  void CancelOnce() {
    cancel_ = 1;
    canceller_->Cancel();
    cancel_ = 2;
    canceller_.reset();
    --users_;
  }
  void Serve(bool (ModelService::*has)() const, void (ModelService::*serve)()) {
    for (;;) {
      Explorer().Await([this, has] {
        return (service_.*has)() || (users_ == 0 && serving_ == 0 && !service_.HasWork() &&
                                     !service_.HasWaits() && !service_.HasWatches());
      });
      Explorer().Remember((service_.*has)());
      if (!(service_.*has)()) return;
      ++serving_;
      (service_.*serve)();
      --serving_;
    }
  }

  static inline ModelService* service = nullptr;

  const SequenceSituation situation_;
  ModelService service_;
  std::vector<int> performed_;
  std::vector<int> completed_;
  std::shared_ptr<Sequence> starter_;
  std::shared_ptr<Sequence> canceller_;
  int acquired_ = 0, told_ = 0, result_canceled_ = 0, alive_ = 0;
  int cancel_ = 0;  // 1 inside, 2 behind
  int cancel_before_last_ = 0;
  int users_ = 0, serving_ = 0;
  int ended_at_ = 0;  // so many beats were over at the end of the last step
};

#ifndef PLANTED_FAULTS

TEST(ListenerInterleavings, NoTickComesBehindAStop) {
  TraceRecorder traces;
  for (const WaitKind kind : {kTellsInCancel, kTellsLater, kIgnores}) {
    EXPECT_EQ(Explore<ListenerScenario>(ListenerSituation{kind, false}), "");
  }
  EXPECT_TRUE(traces.AssertionTexts().empty());
}

TEST(ListenerInterleavings, ASecondStopStrandsNobody) {
  TraceRecorder traces;
  for (const WaitKind kind : {kTellsInCancel, kTellsLater, kIgnores, kTicksAtOnce}) {
    EXPECT_EQ(Explore<ListenerScenario>(ListenerSituation{kind, true}), "");
  }
  const std::vector<std::string> assertions = traces.AssertionTexts();
  EXPECT_FALSE(assertions.empty());
  for (const std::string& text : assertions) {
    EXPECT_EQ(text,
              "Assertion failed: State == StateWorking, file enterprise/common/async/metronome, "
              "line 112");
  }
}

class SequenceInterleavings : public testing::Test {
 protected:
  // A few changes of thread at any place, and those that waiting forces: all of them take minutes.
  static void Explore(const SequenceSituation& situation, int preemptions = 2) {
    EXPECT_EQ(Testing::Explore<SequenceScenario>(situation, preemptions), "");
  }
  ~SequenceInterleavings() override { EXPECT_TRUE(traces_.AssertionTexts().empty()); }

  TraceRecorder traces_;
};

TEST_F(SequenceInterleavings, StepsThatEndElsewhereOrLater) {
  Explore({{kElsewhere, kElsewhere, kInside}, kNoService, false}, 4);
  Explore({{kLater, kElsewhere, kLater}, kNoService, false}, 4);
}
TEST_F(SequenceInterleavings, CancelDuringAndBetweenSteps) {
  Explore({{kElsewhere, kInside, kElsewhere}, kNoService, true});
}
TEST_F(SequenceInterleavings, AStepThatBlocksInline) {
  Explore({{kBlocks, kElsewhere, kInside}, kNoService, false}, 4);
}
TEST_F(SequenceInterleavings, TicksAndWaitsHandTheLoopOver) {
  Explore({{kInside, kInside}, kTicks, false});
  Explore({{kBlocks, kInside}, kTicks, false});
}
TEST_F(SequenceInterleavings, BeatsHandOverALoopThatStallsAndNoOther) {
  Explore({{kInside, kInside, kInside}, kBeats, false});
  Explore({{kStalls, kInside, kInside}, kBeats, false});
  Explore({{kInside, kStalls, kInside}, kBeats, false, 1});
  Explore({{kBlocks, kInside}, kBeats, false});
}
TEST_F(SequenceInterleavings, CancelOfALoopThatIsHandedOver) {
  Explore({{kBlocks, kInside}, kTicks, true}, 1);
}

#else

TEST(PlantedFaultDeathTest, AStopThatDoesNotWaitForTheTickIsFound) {
  ExpectFound<ListenerScenario>(PlantedFault::kFinishBeforeTick, "broken: no tick runs behind Stop",
                                ListenerSituation{kIgnores, false});
}

TEST(PlantedFaultDeathTest, AnOwnerThatIsNeverClearedIsFound) {
  ExpectFound<SequenceScenario>(PlantedFault::kOwnerStays, "all threads wait",
                                SequenceSituation{{kLater, kElsewhere}, kNoService, false}, 2);
}

TEST(PlantedFaultDeathTest, AMarkThatAgesWrongIsFound) {
  const SequenceSituation inside{{kInside, kInside, kInside}, kBeats, false};
  ExpectFound<SequenceScenario>(PlantedFault::kAgesByStore,
                                "broken: one thread holds the controller", inside, 2);
  ExpectFound<SequenceScenario>(PlantedFault::kTakesTicked,
                                "broken: one thread holds the controller", inside, 2);
  ExpectFound<SequenceScenario>(PlantedFault::kNoGrace,
                                "broken: a tick comes a whole interval behind the step", inside, 2);
  ExpectFound<SequenceScenario>(PlantedFault::kMarkUnwatched, "all threads wait",
                                SequenceSituation{{kInside, kStalls, kInside}, kBeats, false, 1},
                                2);
}

#endif

}  // namespace
}  // namespace Async
