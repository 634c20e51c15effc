#include "enterprise/common/async/metronome.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/synchronization_fork.h"
#include "tests/enterprise/common/async/fake_service.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::Failure;
using Testing::FakeAction;
using Testing::FakeJob;
using Testing::FakeService;
using Testing::kFailure;
using Testing::TraceRecorder;

class Listener : public MetronomeListener {
 public:
  bool Tick() override {
    ++ticks;
    return true;
  }
  std::atomic<int> ticks{0};
};

// A metronome that the test is.
class FakeMetronome final : public Metronome, public FakeAction {
 public:
  using FakeAction::FakeAction;
  std::shared_ptr<Job> WaitTick(ActionHandler& handler) override { return Perform(handler); }
};

FakeMetronome MetronomeThatTells(const Common::Error& result) {
  return FakeMetronome([result](ActionHandler& handler) {
    handler.Completed(result);
    return nullptr;
  });
}

TEST(MetronomeListenerTest, StopsAtOnceBeforeItsStartAndAfterItsEnd) {
  Listener listener;
  listener.Stop();
  ActionHandler* waiting = nullptr;
  FakeMetronome metronome([&](ActionHandler& handler) {
    waiting = &handler;
    return std::make_shared<FakeJob>();
  });
  EXPECT_TRUE(listener.Start(&metronome));
  EXPECT_EQ(listener.ticks, 0);
  waiting->Completed({});
  listener.Stop();
  listener.Stop();
  EXPECT_EQ(listener.ticks, 1);
}

TEST(MetronomeListenerTest, StartsOnceInItsLife) {
  FakeMetronome metronome = MetronomeThatTells({});
  Listener listener;
  EXPECT_TRUE(listener.Start(&metronome));  // the whole wait runs inside
  EXPECT_EQ(listener.ticks, 1);
  TraceRecorder traces;
  EXPECT_FALSE(listener.Start(&metronome));
  EXPECT_EQ(metronome.performs, 1);
  EXPECT_EQ(traces.AssertionTexts(),
            std::vector<std::string>{"Assertion failed: !\"Metronome logic broken.\", file "
                                     "enterprise/common/async/metronome, line 91"});
  listener.Stop();
}

// A Stop behind any of them would wait for good if it were not told.
TEST(MetronomeListenerTest, NothingButSuccessTicksAndEveryEndReleasesTheStop) {
  for (const std::uint32_t code : {kFailure, kCanceledCode}) {
    FakeMetronome metronome = MetronomeThatTells(Failure(code));
    Listener listener;
    EXPECT_TRUE(listener.Start(&metronome));
    listener.Stop();
    EXPECT_EQ(listener.ticks, 0);
  }
  Listener refused;
  FakeMetronome fails([](ActionHandler&) -> std::shared_ptr<Job> { throw Failure(); });
  EXPECT_TRUE(refused.Start(&fails));
  refused.Stop();
  Listener starved;
  FakeMetronome no_memory([](ActionHandler&) -> std::shared_ptr<Job> { throw std::bad_alloc(); });
  EXPECT_TRUE(starved.Start(&no_memory));
  starved.Stop();
  EXPECT_EQ(refused.ticks + starved.ticks, 0);

  struct ThrowingListener : public MetronomeListener {
    explicit ThrowingListener(std::function<void()> tick) : throws(std::move(tick)) {}
    bool Tick() override {
      throws();
      return true;
    }
    const std::function<void()> throws;
  };
  ThrowingListener wild([] { throw std::runtime_error("tick"); });
  ThrowingListener throwing([] { throw Failure(); });
  FakeMetronome metronome = MetronomeThatTells({});
  EXPECT_THROW(wild.Start(&metronome), std::runtime_error);
  wild.Stop();
  TraceRecorder traces;
  EXPECT_TRUE(throwing.Start(&metronome));
  throwing.Stop();
  EXPECT_FALSE(traces.Errors().empty());
}

TEST(MetronomeListenerTest, NoTickRunsOnceAStopHasReturned) {
  FakeService service;
  Metronome* const metronome = service.GetMetronomeSource()->GetMetronome(1);
  int ticks = 0;
  for (int round = 0; round < 3000; ++round) {
    auto listener = std::make_unique<Listener>();
    EXPECT_TRUE(listener->Start(metronome));
    std::atomic<bool> go{false};
    std::thread ticking([&] {
      go = true;
      service.TickHere();
    });
    while (!go) {
    }
    listener->Stop();
    ticks += listener->ticks;
    listener.reset();
    ticking.join();
  }
  EXPECT_EQ(service.waits, 3000);
  RecordProperty("ticks", ticks);  // the rest were stopped before
}

// Its work counts, and fails if told to.
class Fork : public SynchronizationFork {
 public:
  ~Fork() override { Stop(); }

  bool IsForkNeeded() override { return needed; }
  std::unique_ptr<Work> CreateWork() override {
    ++created;
    if (no_work) return nullptr;
    return std::make_unique<CountingWork>(*this);
  }

  bool needed = true;
  bool no_work = false;
  Common::Error result;
  int created = 0;
  int executed = 0;
  int destroyed = 0;
  std::thread::id thread;

 private:
  class CountingWork : public Work {
   public:
    explicit CountingWork(Fork& fork) : fork_(fork) {}
    ~CountingWork() override { ++fork_.destroyed; }
    Common::Error Execute() override {
      ++fork_.executed;
      fork_.thread = std::this_thread::get_id();
      return fork_.result;
    }

   private:
    Fork& fork_;
  };
};

// How often a failure of a fake was traced, at the debug level.
std::ptrdiff_t CountFailures(const TraceRecorder& traces) {
  const std::vector<TraceRecorder::Line> lines = traces.OfLevel(Common::kTraceDebug);
  return std::count_if(lines.begin(), lines.end(),
                       [](const auto& line) { return line.code == kFailure; });
}

TEST(SynchronizationForkTest, CreatesWorkOnlyWhenNeeded) {
  Fork fork;
  fork.needed = false;
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.created, 0);
  fork.needed = fork.no_work = true;
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.created, 1);
  EXPECT_EQ(fork.executed, 0);
}

TEST(SynchronizationForkTest, ASuppressedTickIsCountedOnly) {
  Fork fork;
  fork.SuppressCount = 1;
  EXPECT_TRUE(fork.Tick());
  EXPECT_EQ(fork.CallCount, 1u);
  EXPECT_EQ(fork.created, 0);
  fork.SuppressCount = 0;
  EXPECT_FALSE(fork.Tick());
  EXPECT_EQ(fork.CallCount, 2u);
  EXPECT_EQ(fork.executed, 1);
}

TEST(SynchronizationForkTest, WithoutAServiceTheWorkRunsOnTheSpot) {
  TraceRecorder traces;
  Fork fork;
  fork.Arm();  // nothing to arm
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.executed, 1);
  EXPECT_EQ(fork.destroyed, 1);
  EXPECT_EQ(fork.thread, std::this_thread::get_id());
  EXPECT_EQ(CountFailures(traces), 0);
  fork.result = Failure();
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.executed, 2);
  EXPECT_EQ(CountFailures(traces), 1);
}

TEST(SynchronizationForkTest, AServiceTakesTheWorkAndItsFailureIsTraced) {
  TraceRecorder traces;
  FakeService service;
  Fork fork;
  fork.result = Failure();
  EXPECT_FALSE(fork.Invoke(nullptr));
  service.Join();
  EXPECT_EQ(fork.executed, 1);
  EXPECT_EQ(fork.destroyed, 1);
  EXPECT_NE(fork.thread, std::this_thread::get_id());
  EXPECT_EQ(CountFailures(traces), 1);

  // Told inside PerformWork: the work dies there, once.
  service.RunWorkInside();
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.executed, 2);
  EXPECT_EQ(fork.destroyed, 2);
  EXPECT_EQ(CountFailures(traces), 2);

  // Not taken: the work is lost, and its failure told to the trace alone.
  service.RefuseWork();
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.executed, 2);
  EXPECT_EQ(fork.destroyed, 3);
  EXPECT_GE(traces.Errors().size(), 1u);
  service.RefuseWork([] { throw std::bad_alloc(); });
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.destroyed, 4);
}

}  // namespace
}  // namespace Async
