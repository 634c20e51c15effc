#include "platform/async_service/async_service.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <deque>
#include <functional>
#include <latch>
#include <memory>
#include <new>
#include <semaphore>
#include <thread>
#include <utility>

#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/action_sequence.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/synchronizer.h"
#include "platform/async_service/elastic_pool.h"
#include "tests/enterprise/common/async/test_support.h"
#include "tests/support/allocation_watch.h"

namespace Platform {
namespace {

class FunctionTask : public PoolTask {
 public:
  explicit FunctionTask(std::function<void()> function) : function_(std::move(function)) {}
  void Run() override { function_(); }

 private:
  const std::function<void()> function_;
};

std::shared_ptr<PoolTask> Task(std::function<void()> function) {
  return std::make_shared<FunctionTask>(std::move(function));
}

class FunctionWork : public Async::Work {
 public:
  explicit FunctionWork(std::function<Common::Error()> function) : function_(std::move(function)) {}
  Common::Error Execute() override { return function_(); }

 private:
  const std::function<Common::Error()> function_;
};

// Counts how often it is told.
struct CountingHandler : Async::ActionHandler {
  void Completed(Common::Error result) override {
    code = result.GetCode();
    ++told;
    end.release();
  }
  std::atomic<int> told = 0;
  std::uint32_t code = 0;
  std::counting_semaphore<> end{0};
};

TEST(ElasticPool, HasNoThreadBeforeTheFirstTask) {
  ElasticPool pool;
  EXPECT_EQ(pool.GetThreadCount(), 0u);
  std::binary_semaphore ran(0);
  EXPECT_TRUE(pool.Post(Task([&] { ran.release(); })));
  ran.acquire();
  EXPECT_EQ(pool.GetThreadCount(), 1u);
}

// Each task waits for the one behind it: with a fixed number of threads this never ends.
TEST(ElasticPool, GrowsForWorkThatWaitsForOtherWork) {
  std::deque<std::latch> ends[2];
  ElasticPool pool;
  const std::size_t tasks = 4 * pool.GetParallelism();
  for (const bool told : {false, true}) {
    std::deque<std::latch>& done = ends[told];
    for (std::size_t i = 0; i <= tasks; ++i) done.emplace_back(1);
    done[tasks].count_down();
    for (std::size_t i = 0; i < tasks; ++i) {
      pool.Post(Task([&pool, &done, told, i] {
        if (told) pool.NoteBlocked();
        done[i + 1].wait();
        done[i].count_down();
      }));
    }
    done[0].wait();
  }
}

// While it lives no thread can be started: none has room for a stack of the default size.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t huge = before_;
    pthread_attr_setstacksize(&huge, std::size_t{1} << 48);
    pthread_setattr_default_np(&huge);
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
  }
  ~NoThreads() { pthread_setattr_default_np(&before_); }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t before_;
};

double ProcessorSeconds() {
  timespec time;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

TEST(ElasticPool, GoesOnTryingWhenNoThreadCanBeHadAndIsQuietMeanwhile) {
  ElasticPool pool;
  {
    const NoThreads none;
    EXPECT_THROW(pool.Post(Task([] {})), std::system_error);
  }
  std::binary_semaphore began(0), gate(0), ran(0);
  pool.Post(Task([&] {
    began.release();
    gate.acquire();
  }));
  began.acquire();
  {
    const NoThreads none;
    EXPECT_TRUE(pool.Post(Task([&] { ran.release(); })));
    EXPECT_FALSE(ran.try_acquire_for(2 * ElasticPool::kStallTime));
    const double before = ProcessorSeconds();
    EXPECT_FALSE(ran.try_acquire_for(40 * ElasticPool::kStallTime));
    EXPECT_LT(ProcessorSeconds() - before, 0.02);  // of 0.4
  }
  EXPECT_TRUE(ran.try_acquire_for(std::chrono::seconds(30)));
  gate.release();
}

TEST(ElasticPool, StopRunsWhatWasPostedAlsoByTheLastTasksAndThenTakesNothing) {
  std::atomic<int> ran = 0;
  ElasticPool pool;
  for (int i = 0; i < 100; ++i) {
    pool.Post(Task([&] {
      ++ran;
      pool.Post(Task([&] { ++ran; }));
    }));
  }
  bool dropped = true;
  pool.PostAt(ElasticPool::Clock::now() + std::chrono::hours(1), Task([&] { dropped = false; }));
  pool.Stop();
  EXPECT_EQ(ran, 200);
  EXPECT_TRUE(dropped);
  EXPECT_EQ(pool.GetThreadCount(), 0u);
  EXPECT_FALSE(pool.Post(Task([] {})));
  EXPECT_FALSE(pool.PostAt(ElasticPool::Clock::now(), Task([] {})));
}

TEST(ElasticPool, TimersComeInTheirOrder) {
  using Clock = ElasticPool::Clock;
  ElasticPool pool;
  std::latch done(2);
  std::atomic<bool> is_too_soon = false;
  const auto now = Clock::now();
  // Seconds lie between them, for busy machines.
  for (const int seconds : {3600, 1, 0}) {
    const auto time = now + std::chrono::seconds(seconds) + std::chrono::milliseconds(20);
    pool.PostAt(time, Task([&, time] {
                  if (Clock::now() < time) is_too_soon = true;
                  done.count_down();
                }));
  }
  done.wait();
  EXPECT_FALSE(is_too_soon);
  EXPECT_LT(Clock::now() - now, std::chrono::minutes(1));
}

TEST(AsyncService, PerformsWorkOnAnotherThreadAndTellsItsResult) {
  AsyncService service;
  std::thread::id thread;
  FunctionWork work([&] {
    thread = std::this_thread::get_id();
    return Common::Error(7, Common::LineTag{});
  });
  Async::Synchronizer end;
  const auto job = service.PerformWork(work, end);
  EXPECT_EQ(end.Wait(job).GetCode(), 7u);
  EXPECT_NE(thread, std::this_thread::get_id());
  job->Cancel();  // too late, no effect

  FunctionWork throws([]() -> Common::Error { throw Common::Error(8, Common::LineTag{}); });
  EXPECT_EQ(end.Wait(service.PerformWork(throws, end)).GetCode(), 8u);
  FunctionWork fails([]() -> Common::Error { throw std::bad_alloc(); });
  EXPECT_EQ(end.Wait(service.PerformWork(fails, end)).GetCode(), Common::kOutOfMemoryCode);
}

TEST(AsyncService, WorkCanBeCancelledUntilItBegins) {
  AsyncService service;
  std::atomic<int> ran = 0;
  FunctionWork work([&] {
    ++ran;
    return Common::Error();
  });
  std::deque<CountingHandler> handlers;
  for (int i = 0; i < 2000; ++i) {
    const auto job = service.PerformWork(work, handlers.emplace_back());
    if (i % 2 == 0) job->Cancel();
    job->Cancel();
  }
  service.Stop();
  int canceled = 0;
  for (const CountingHandler& handler : handlers) {
    EXPECT_EQ(handler.told, 1);
    canceled += handler.code == Async::kCanceledCode;
  }
  EXPECT_EQ(ran + canceled, 2000);
  EXPECT_THROW(service.PerformWork(work, handlers[0]), Common::Error);
}

TEST(AsyncService, MetronomesTickOncePerWait) {
  AsyncService service;
  Async::Metronome* const metronome = service.GetMetronomeSource()->GetMetronome(5);
  EXPECT_EQ(service.GetMetronomeSource()->GetMetronome(5), metronome);
  Async::Synchronizer ticks[3];
  std::shared_ptr<Async::Job> jobs[3];
  for (int i = 0; i < 3; ++i) jobs[i] = metronome->WaitTick(ticks[i]);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ticks[i].Wait(jobs[i]).GetCode(), 0u);

  Async::Metronome* const slow = service.GetMetronomeSource()->GetMetronome(3600 * 1000);
  const auto job = slow->WaitTick(ticks[0]);
  job->Cancel();
  job->Cancel();
  EXPECT_EQ(ticks[0].Wait(nullptr).GetCode(), Async::kCanceledCode);
  // What still waits when the service ends is cancelled.
  const auto last = slow->WaitTick(ticks[1]);
  service.Stop();
  EXPECT_EQ(ticks[1].Wait(nullptr).GetCode(), Async::kCanceledCode);
  EXPECT_THROW(slow->WaitTick(ticks[2]), Common::Error);
}

// Ticks against cancels, on real threads: each wait is told exactly once.
TEST(AsyncService, TicksAndCancelsMeet) {
  std::deque<CountingHandler> handlers;
  {
    AsyncService service;
    Async::Metronome* const metronome = service.GetMetronomeSource()->GetMetronome(1);
    for (int round = 0; round < 300; ++round) {
      std::shared_ptr<Async::Job> jobs[4];
      for (auto& job : jobs) job = metronome->WaitTick(handlers.emplace_back());
      std::thread canceller([&] {
        for (const auto& job : jobs) {
          if (round % 3 != 0) std::this_thread::yield();
          job->Cancel();
        }
      });
      for (std::size_t i = handlers.size() - 4; i < handlers.size(); ++i) handlers[i].end.acquire();
      canceller.join();
    }
  }
  for (const CountingHandler& handler : handlers) {
    EXPECT_EQ(handler.told, 1);
    EXPECT_TRUE(handler.code == 0 || handler.code == Async::kCanceledCode);
  }
}

struct CountingWatcher final : Async::BeatWatcher {
  bool OnBeat() noexcept override {
    times.push_back(ElasticPool::Clock::now());
    if (on_beat) on_beat();
    return times.size() == beats;
  }
  std::size_t beats = 1;
  std::vector<ElasticPool::Clock::time_point> times;
  std::function<void()> on_beat;
};

// Those of the service come late, behind other work.
TEST(AsyncService, BeatsAreAWholeIntervalApart) {
  constexpr std::chrono::milliseconds kInterval(20);
  AsyncService service;
  std::atomic<bool> busy = true;
  std::function<void()> work = [&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(4));
    if (busy) service.GetPool().Post(Task(work));
  };
  const std::size_t tasks = 3 * service.GetPool().GetParallelism();
  for (std::size_t i = 0; i < tasks; ++i) service.GetPool().Post(Task(work));
  CountingHandler handler;
  CountingWatcher watcher;
  watcher.beats = 12;
  watcher.times.reserve(watcher.beats);
  Async::Beats* const beats = service.GetMetronomeSource()->GetMetronome(20)->GetBeats();
  ASSERT_NE(beats, nullptr);
  const auto job = beats->Watch(watcher, handler);
  handler.end.acquire();
  busy = false;
  service.Stop();
  EXPECT_EQ(handler.told, 1);
  EXPECT_EQ(handler.code, 0u);
  ASSERT_EQ(watcher.times.size(), watcher.beats);
  for (std::size_t i = 1; i < watcher.beats; ++i) {
    EXPECT_GE(watcher.times[i] - watcher.times[i - 1], kInterval);
  }
}

TEST(AsyncService, AWatchEndsByCancelByStopAndForWantOfMemoryForTheNextBeat) {
  AsyncService service;
  const auto watch = [&](unsigned int interval, CountingWatcher& watcher, CountingHandler& end) {
    return service.GetMetronomeSource()->GetMetronome(interval)->GetBeats()->Watch(watcher, end);
  };
  CountingWatcher watchers[4];
  CountingHandler handlers[4];
  const auto canceled = watch(3600 * 1000, watchers[0], handlers[0]);
  canceled->Cancel();
  canceled->Cancel();

  std::unique_ptr<TestSupport::AllocationWatch> no_memory;
  watchers[1].beats = 2;
  watchers[1].on_beat = [&] { no_memory = std::make_unique<TestSupport::AllocationWatch>(0, 1); };
  struct Told : Async::ActionHandler {
    void Completed(Common::Error result) override {
      memory->reset();
      next->Completed(std::move(result));
    }
    std::unique_ptr<TestSupport::AllocationWatch>* memory;
    CountingHandler* next;
  } told;
  told.memory = &no_memory;
  told.next = &handlers[1];
  const auto lost =
      service.GetMetronomeSource()->GetMetronome(1)->GetBeats()->Watch(watchers[1], told);
  handlers[1].end.acquire();
  const auto next = watch(1, watchers[2], handlers[2]);
  handlers[2].end.acquire();

  const auto last = watch(3600 * 1000, watchers[3], handlers[3]);
  service.Stop();
  const std::uint32_t codes[] = {Async::kCanceledCode, Async::kCanceledCode, 0,
                                 Async::kCanceledCode};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(handlers[i].told, 1) << i;
    EXPECT_EQ(handlers[i].code, codes[i]) << i;
  }
  EXPECT_THROW(watch(1, watchers[3], handlers[3]), Common::Error);
}

TEST(AsyncService, StopsAlsoWhenAMetronomeFoundNoMemory) {
  TestSupport::FailEachAllocation(
      [](const TestSupport::AllocationWatch& watch) {
        std::unique_ptr<AsyncService> service;
        try {
          service = std::make_unique<AsyncService>();
          EXPECT_NE(service->GetMetronomeSource()->GetMetronome(60), nullptr);
        } catch (const std::bad_alloc&) {
          EXPECT_TRUE(watch.HasFailed());
        }
        if (service != nullptr) service->Stop();
      },
      1);
}

TEST(AsyncService, ASequenceOutlivesTheStop) {
  static AsyncService* current = nullptr;
  AsyncService service;
  current = &service;
  const Async::ServiceProvider provider =
      Async::SetServiceProvider([](Async::Service** out) { *out = current; });
  Async::ActionSequence sequence;
  int steps = 0;
  for (int i = 0; i < 10; ++i) {
    sequence.Execute(Async::MakeAction([&](Async::ActionHandler& handler) {
      if (++steps == 3) service.Stop();
      handler.Completed({});
      return nullptr;
    }));
  }
  CountingHandler handler;
  const auto job = sequence.Perform(handler);
  Async::SetServiceProvider(provider);
  EXPECT_EQ(handler.told, 1);
  EXPECT_EQ(handler.code, 0u);
  EXPECT_EQ(steps, 10);
}

// A loop whose steps all end inside their Perform stays on its thread, however long it runs: a wait
// for a tick is a whole interval at least.
TEST(AsyncService, DoesNotMoveALoopThatDoesNotStall) {
  struct Repeating : Async::ActionSequence {
    bool IsRepeating(Async::ActionHandler&) override { return true; }
  } sequence;
  const std::thread::id starter = std::this_thread::get_id();
  const auto end = ElasticPool::Clock::now() + std::chrono::milliseconds(200);
  int elsewhere = 0;
  sequence.Execute(Async::MakeAction([&](Async::ActionHandler& handler) {
    if (std::this_thread::get_id() != starter) ++elsewhere;
    handler.Completed(ElasticPool::Clock::now() < end
                          ? Common::Error()
                          : Common::Error(Async::kStopSequenceCode, Common::LineTag{}));
    return nullptr;
  }));
  CountingHandler handler;
  const auto job = sequence.Perform(handler);
  EXPECT_EQ(handler.told, 1);
  EXPECT_EQ(elsewhere, 0);
}

// The first step ends, and its thread then waits for the second one without a word to anybody.
TEST(AsyncService, MovesALoopWhoseThreadStalls) {
  std::binary_semaphore gate(0);
  std::thread::id second;
  Async::ActionSequence sequence;
  sequence.Execute(Async::MakeAction([&](Async::ActionHandler& handler) {
    handler.Completed({});
    return std::make_shared<Async::Testing::JobWithAnEnd>(
        [&] { EXPECT_TRUE(gate.try_acquire_for(std::chrono::seconds(30))); });
  }));
  sequence.Execute(Async::MakeAction([&](Async::ActionHandler& handler) {
    second = std::this_thread::get_id();
    gate.release();
    handler.Completed({});
    return nullptr;
  }));
  Async::Synchronizer end;
  const auto job = sequence.Perform(end);
  EXPECT_EQ(end.Wait(job).GetCode(), 0u);
  EXPECT_NE(second, std::this_thread::get_id());
}

TEST(AsyncService, NoStepOfASequenceTakesMemory) {
  constexpr unsigned long long kSteps = 4000;
  const Async::ServiceProvider provider = Async::SetServiceProvider(nullptr);
  for (const Async::ServiceProvider current : {Async::ServiceProvider(), provider}) {
    Async::SetServiceProvider(current);
    Async::ActionSequence sequence;
    const TestSupport::AllocationWatch* watch = nullptr;
    unsigned long long steps = 0;
    unsigned long long at_first = 0;
    unsigned long long at_last = 0;
    const std::shared_ptr<Async::Action> step =
        Async::MakeAction([&](Async::ActionHandler& handler) {
          ++steps;
          if (steps == 100) at_first = watch->GetCount();
          if (steps == kSteps) at_last = watch->GetCount();
          handler.Completed({});
          return nullptr;
        });
    for (unsigned long long i = 0; i < kSteps; ++i) sequence.Execute(step);
    CountingHandler handler;
    const TestSupport::AllocationWatch running;
    watch = &running;
    const auto job = sequence.Perform(handler);
    EXPECT_EQ(handler.told, 1);
    // Beside the service a pass takes some when it begins anew, which it does when the machine
    // keeps the thread off for two beats.
    EXPECT_LE(at_last - at_first, current == nullptr ? 0 : 8);
  }
}

TEST(AsyncService, IsTheServiceOfTheProcess) {
  Async::Service* service = nullptr;
  GetAsyncService(&service);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(Async::GetSynchronizationCallbackStorage(),
            service->GetSynchronizationCallbackStorage());
}

}  // namespace
}  // namespace Platform
