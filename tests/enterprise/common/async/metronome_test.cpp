#include "enterprise/common/async/metronome.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/unix/event.h"
#include "core/common/unix/trace.h"
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

constexpr char kAssertionFile[] = "enterprise/common/async/metronome";

class Listener : public MetronomeListener {
 public:
  bool Tick() override {
    ++ticks;
    return true;
  }
  std::atomic<int> ticks{0};
};

// A metronome that the test is.
class FakeMetronome final : public Metronome {
 public:
  explicit FakeMetronome(FakeAction::Body body) : body_(std::move(body)) {}

  std::shared_ptr<Job> WaitTick(ActionHandler& handler) override {
    ++waits;
    return body_(handler);
  }
  int waits = 0;

 private:
  FakeAction::Body body_;
};

void ExpectOneAssertion(const TraceRecorder& traces, const std::string& expression,
                        const std::string& line) {
  EXPECT_EQ(traces.AssertionTexts(),
            std::vector<std::string>{"Assertion failed: " + expression + ", file " +
                                     kAssertionFile + ", line " + line});
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
  EXPECT_EQ(listener.ticks, 1);
  listener.Stop();
  listener.Stop();
  EXPECT_EQ(listener.ticks, 1);
}

TEST(MetronomeListenerTest, StartsOnceInItsLife) {
  FakeMetronome metronome([](ActionHandler& handler) {
    handler.Completed({});
    return std::make_shared<FakeJob>();
  });
  Listener listener;
  EXPECT_TRUE(listener.Start(&metronome));  // the whole wait runs inside
  EXPECT_EQ(listener.ticks, 1);
  TraceRecorder traces;
  EXPECT_FALSE(listener.Start(&metronome));
  EXPECT_EQ(metronome.waits, 1);
  ExpectOneAssertion(traces, "!\"Metronome logic broken.\"", "91");
  listener.Stop();
}

TEST(MetronomeListenerTest, OnlySuccessIsATick) {
  for (const std::uint32_t code : {kFailure, kCanceledCode}) {
    FakeMetronome metronome([code](ActionHandler& handler) {
      handler.Completed(Failure(code));
      return nullptr;
    });
    Listener listener;
    EXPECT_TRUE(listener.Start(&metronome));
    listener.Stop();
    EXPECT_EQ(listener.ticks, 0);
  }
}

TEST(MetronomeListenerTest, AMetronomeThatThrowsLeavesNothingToStop) {
  Listener refused;
  FakeMetronome fails([](ActionHandler&) -> std::shared_ptr<Job> { throw Failure(); });
  EXPECT_TRUE(refused.Start(&fails));
  refused.Stop();

  Listener starved;
  FakeMetronome no_memory([](ActionHandler&) -> std::shared_ptr<Job> { throw std::bad_alloc(); });
  EXPECT_THROW(starved.Start(&no_memory), std::bad_alloc);
  starved.Stop();
  EXPECT_EQ(refused.ticks + starved.ticks, 0);
}

TEST(MetronomeListenerTest, ATickThatThrowsReleasesTheStop) {
  class Throwing : public MetronomeListener {
   public:
    bool Tick() override { throw Failure(); }
  };
  FakeMetronome metronome([](ActionHandler& handler) {
    handler.Completed({});
    return nullptr;
  });
  Throwing listener;
  TraceRecorder traces;
  EXPECT_TRUE(listener.Start(&metronome));
  listener.Stop();
  EXPECT_FALSE(traces.Errors().empty());
}

TEST(MetronomeListenerTest, ASecondStopAssertsAndLeavesTheFirstOneItsEvent) {
  // The wait heeds no cancel until the test tells its end.
  ActionHandler* waiting = nullptr;
  Common::Event canceled(false, false);
  FakeMetronome metronome([&](ActionHandler& handler) {
    waiting = &handler;
    return std::make_shared<FakeJob>([&canceled] { canceled.Set(); });
  });
  Listener listener;
  EXPECT_TRUE(listener.Start(&metronome));
  std::thread first([&listener] { listener.Stop(); });
  canceled.Wait();  // the first one has stored its event
  {
    TraceRecorder traces;
    listener.Stop();
    ExpectOneAssertion(traces, "State == StateWorking", "112");
  }
  waiting->Completed(Failure(kCanceledCode));
  first.join();
  EXPECT_EQ(listener.ticks, 0);
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
  explicit Fork(bool needed) : needed_(needed) {}
  ~Fork() override { Stop(); }

  bool IsForkNeeded() override { return needed_; }
  std::unique_ptr<Work> CreateWork() override {
    ++created;
    if (no_work) return nullptr;
    return std::make_unique<CountingWork>(*this);
  }

  int created = 0;
  bool no_work = false;
  Common::Error result;
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

  const bool needed_;
};

// Level 1 is below the threshold of the process otherwise.
class DebugTraces {
 public:
  DebugTraces() { Common::SetTraceThreshold(Common::kTraceDebug); }
  ~DebugTraces() { Common::SetTraceThreshold(former_); }

  // How often a failure of a fake was traced, at level 1.
  std::size_t Failures() const {
    std::size_t count = 0;
    for (const TraceRecorder::Line& line : recorder.OfLevel(1)) count += line.code == kFailure;
    return count;
  }

  TraceRecorder recorder;

 private:
  const unsigned int former_ = Common::GetTraceThreshold();
};

TEST(SynchronizationForkTest, CreatesWorkOnlyWhenNeeded) {
  Fork idle(false);
  EXPECT_FALSE(idle.Invoke(nullptr));
  EXPECT_EQ(idle.created, 0);

  Fork without(true);
  without.no_work = true;
  EXPECT_FALSE(without.Invoke(nullptr));
  EXPECT_EQ(without.created, 1);
  EXPECT_EQ(without.executed, 0);
}

TEST(SynchronizationForkTest, ASuppressedTickIsCountedOnly) {
  Fork fork(true);
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
  DebugTraces traces;
  Fork fork(true);
  fork.Arm();  // nothing to arm
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.executed, 1);
  EXPECT_EQ(fork.destroyed, 1);
  EXPECT_EQ(fork.thread, std::this_thread::get_id());
  EXPECT_EQ(traces.Failures(), 0u);
  fork.result = Failure();
  EXPECT_FALSE(fork.Invoke(nullptr));
  EXPECT_EQ(fork.executed, 2);
  EXPECT_EQ(traces.Failures(), 1u);
}

TEST(SynchronizationForkTest, AServiceTakesTheWorkAndItsFailureIsTraced) {
  DebugTraces traces;
  auto service = std::make_unique<FakeService>();
  {
    Fork fork(true);
    fork.result = Failure();
    EXPECT_FALSE(fork.Invoke(nullptr));
    service->Join();
    EXPECT_EQ(fork.executed, 1);
    EXPECT_EQ(fork.destroyed, 1);
    EXPECT_NE(fork.thread, std::this_thread::get_id());
    EXPECT_EQ(traces.Failures(), 1u);

    // Told inside PerformWork: the work dies there, once.
    service->RunWorkInside();
    EXPECT_FALSE(fork.Invoke(nullptr));
    EXPECT_EQ(fork.executed, 2);
    EXPECT_EQ(fork.destroyed, 2);
    EXPECT_EQ(traces.Failures(), 2u);

    // Not taken: the work is lost, and its failure told to the trace alone.
    service->RefuseWork();
    EXPECT_FALSE(fork.Invoke(nullptr));
    EXPECT_EQ(fork.executed, 2);
    EXPECT_EQ(fork.destroyed, 3);
    EXPECT_GE(traces.recorder.Errors().size(), 1u);
  }
}

TEST(SynchronizationForkTest, AnArmedForkIsOneNotificationAtTheTick) {
  FakeService service;
  Fork fork(true);
  fork.Arm();
  EXPECT_EQ(service.waits, 1);
  EXPECT_EQ(service.interval, 60u);
  EXPECT_EQ(fork.created, 0);
  service.Tick();
  service.Join();
  EXPECT_EQ(fork.CallCount, 1u);
  EXPECT_EQ(fork.executed, 1);
}

}  // namespace
}  // namespace Async
