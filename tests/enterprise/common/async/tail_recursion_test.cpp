#include "enterprise/common/async/tail_recursion.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include "enterprise/common/async/synchronization_callback.h"
#include "tests/enterprise/common/async/fake_service.h"

namespace Async {
namespace {

using Testing::FakeService;

// Who takes the next step, seen from the controller itself. Each step is a function; it calls
// Continue when it ends.
class Steps final : public TailRecursionController, public std::enable_shared_from_this<Steps> {
 public:
  std::shared_ptr<void> GetKeepAlive() override { return shared_from_this(); }
  void Iterate() override { steps[next++](); }

  std::vector<std::function<void()>> steps;
  std::size_t next = 0;
};

// Bounded, so that a fault fails the test and doesn't hang it.
bool Take(std::binary_semaphore& semaphore) {
  return semaphore.try_acquire_for(std::chrono::seconds(5));
}

// The first thread is still inside its step 1 when another one runs step 2 and stalls behind its
// end, without a word to the chain of its callbacks.
TEST(TailRecursion, AThreadThatComesBackToItsLoopTakesTheStepThatIsFree) {
  const auto controller = std::make_shared<Steps>();
  std::binary_semaphore stalls{0}, goes_on{0};
  std::thread other;
  std::thread::id thread_of_third;
  controller->steps = {[&] {
                         other = std::thread([&] { controller->Continue(); });
                         EXPECT_TRUE(Take(stalls));
                       },
                       [&] {
                         controller->Continue();
                         stalls.release();
                         EXPECT_TRUE(Take(goes_on)) << "the next step waits for this thread";
                       },
                       [&] {
                         thread_of_third = std::this_thread::get_id();
                         goes_on.release();
                       }};
  controller->Process();
  other.join();
  EXPECT_EQ(thread_of_third, std::this_thread::get_id());
}

// Each pass stands on the chain that is the thread's when it begins.
TEST(TailRecursion, AStepThatBlocksHandsTheLoopOverAlsoWhenTheServiceHasGone) {
  const auto controller = std::make_shared<Steps>();
  auto service = std::make_unique<FakeService>();
  bool handed_over = false;
  controller->steps = {[&] {
                         SetServiceProvider(nullptr);
                         controller->Continue();
                       },
                       [&] {
                         controller->Continue();
                         NotifySynchronization(nullptr);  // without a service: on the spot
                         handed_over = controller->next == 3;
                       },
                       [] {}};
  controller->Process();
  EXPECT_TRUE(handed_over);
}

TEST(TailRecursion, AStepThatBlocksHandsTheLoopOverAlsoWhenTheServiceHasJustCome) {
  const auto controller = std::make_shared<Steps>();
  std::unique_ptr<FakeService> service;
  std::binary_semaphore third{0};
  controller->steps = {[&] {
                         controller->Continue();
                         service = std::make_unique<FakeService>();
                       },
                       [&] {
                         controller->Continue();
                         NotifySynchronization(nullptr);
                         EXPECT_TRUE(Take(third));
                       },
                       [&] { third.release(); }};
  controller->Process();
  service->Join();
}

// A tick comes to a step whose end has stood for a whole interval, and to no other; the steps begin
// no wait of their own for it.
TEST(TailRecursion, BeatsMoveTheLoopOfAThreadThatStalls) {
  const auto controller = std::make_shared<Steps>();
  FakeService service;
  service.ShowBeats();
  std::binary_semaphore third{0};
  std::thread::id thread_of_third;
  controller->steps = {[&] {
                         controller->Continue();
                         service.Beat();
                       },
                       [&] {
                         service.Beat();
                         service.Beat();
                         controller->Continue();
                         service.Beat();
                         EXPECT_EQ(service.works, 0);
                         service.Beat();
                         EXPECT_TRUE(Take(third));
                       },
                       [&] {
                         thread_of_third = std::this_thread::get_id();
                         third.release();
                       }};
  controller->Process();
  EXPECT_NE(thread_of_third, std::thread::id());
  EXPECT_NE(thread_of_third, std::this_thread::get_id());
  EXPECT_EQ(service.waits, 1);
  EXPECT_EQ(service.interval, 60u);
}

TEST(TailRecursion, AWatchThatIsLostBeginsAnewWithTheNextStep) {
  const auto controller = std::make_shared<Steps>();
  FakeService service;
  service.ShowBeats();
  std::binary_semaphore third{0};
  controller->steps = {[&] {
                         controller->Continue();
                         service.LoseWatches();
                       },
                       [&] {
                         controller->Continue();
                         service.Beat();
                         service.Beat();
                         EXPECT_TRUE(Take(third));
                       },
                       [&] { third.release(); }};
  controller->Process();
  EXPECT_EQ(service.waits, 2);
}

// As long as both threads are in the loop, each end of a step is told to all.
TEST(TailRecursion, TheThreadThatHasTakenTheLoopOverWaitsOnceForItsTick) {
  const auto controller = std::make_shared<Steps>();
  FakeService service;
  service.ShowBeats();
  std::binary_semaphore second{0}, first_has_left{0};
  const auto ends = [&] { controller->Continue(); };
  controller->steps = {[&] {
                         controller->Continue();
                         NotifySynchronization(nullptr);
                         EXPECT_TRUE(Take(second));
                       },
                       [&] {
                         second.release();
                         EXPECT_TRUE(Take(first_has_left));
                         controller->Continue();
                       },
                       ends, ends, [] {}};
  controller->Process();
  first_has_left.release();
  service.Join();
  EXPECT_EQ(controller->next, 5u);
  EXPECT_EQ(service.waits, 2);
}

TEST(TailRecursion, WithoutAServiceNoBeatMovesTheLoop) {
  const auto controller = std::make_shared<Steps>();
  FakeService service;
  service.ShowBeats();
  controller->steps = {[&] { controller->Continue(); },
                       [&] {
                         SetServiceProvider(nullptr);
                         controller->Continue();
                         service.Beat();
                         service.Beat();
                         EXPECT_EQ(controller->next, 2u);
                       },
                       [] {}};
  controller->Process();
  EXPECT_EQ(controller->next, 3u);
}

// Steps on whatever thread has the loop, now and then one that stalls until the next has begun.
TEST(TailRecursion, BeatsAtAnyMomentLoseNoStepAndRunNoneTwice) {
  struct Counting final : TailRecursionController, std::enable_shared_from_this<Counting> {
    enum { kSteps = 4000 };

    std::shared_ptr<void> GetKeepAlive() override { return shared_from_this(); }
    void Iterate() override {
      const int step = ++position;  // a race if two threads had the loop
      begun = step;
      if (step == kSteps) return;
      Continue();
      const bool stalls = step % 40 == 0;
      while (stalls && begun == step) std::this_thread::yield();
    }

    int position = 0;
    std::atomic<int> begun = 0;
  };
  const auto controller = std::make_shared<Counting>();
  FakeService service;
  service.ShowBeats();
  std::thread ticking([&] {
    while (controller->begun != Counting::kSteps) {
      service.Beat();
      service.TickHere();  // to a step that was told of while two threads were in the loop
    }
  });
  controller->Process();
  ticking.join();
  service.Join();
  EXPECT_EQ(controller->position, Counting::kSteps);
  EXPECT_GE(service.works, 1);
}

// The service goes while work that it took still waits for its thread.
TEST(TailRecursion, ForkedWorkThatComesLateTakesTheStepThatIsFree) {
  struct LateService final : Service {
    std::shared_ptr<Job> PerformWork(Work& work, ActionHandler& handler) override {
      queued = [&work, &handler] { handler.Completed(work.Execute()); };
      return nullptr;
    }
    SynchronizationCallbackStorage* GetSynchronizationCallbackStorage() override {
      return &storage;
    }
    MetronomeSource* GetMetronomeSource() override { return &source; }

    struct Source final : MetronomeSource, private Metronome {
      Metronome* GetMetronome(unsigned int) override { return this; }
      std::shared_ptr<Job> WaitTick(ActionHandler& handler) override {
        struct Wait final : BaseJob {
          explicit Wait(ActionHandler& told) : handler(told) {}
          void Cancel() override { handler.Completed(Testing::Failure()); }
          ActionHandler& handler;
        };
        return std::make_shared<Wait>(handler);
      }
    } source;
    TlsSynchronizationCallbackStorage storage;
    std::function<void()> queued;
  };
  static LateService* current = nullptr;
  LateService service;
  current = &service;
  SetServiceProvider([](Service** out) { *out = current; });

  const auto controller = std::make_shared<Steps>();
  std::binary_semaphore third{0};
  controller->steps = {[&] {
                         controller->Continue();
                         NotifySynchronization(nullptr);
                         ASSERT_NE(service.queued, nullptr);
                         SetServiceProvider(nullptr);
                       },
                       [&] {
                         controller->Continue();
                         std::thread late(std::exchange(service.queued, nullptr));
                         EXPECT_TRUE(Take(third));  // stalls without a word
                         late.join();
                       },
                       [&] { third.release(); }};
  controller->Process();
}

}  // namespace
}  // namespace Async
