#include "core/common/unix/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "tests/core/common/unix/thread_state.h"

namespace {

using Common::Event;

constexpr std::uint32_t kLong = 60000;  // a wait that is to succeed
constexpr std::uint32_t kShort = 30;    // a wait that is to fail

TEST(Event, AutoResetIsConsumedByOneWait) {
  Event event(false, true);
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Set();
  EXPECT_TRUE(event.Wait());
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
}

TEST(Event, ManualResetStaysSignalledUntilReset) {
  Event event(true, false);
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait());
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
}

TEST(Event, WaitGivesUpAfterItsTimeAndLeavesALaterSignal) {
  for (const bool manual_reset : {false, true}) {
    Event event(manual_reset, false);
    // Past a second, so that the microseconds of the deadline carry in most runs.
    for (const int milliseconds : {10, 1100}) {
      const auto start = std::chrono::system_clock::now();
      EXPECT_FALSE(event.Wait(static_cast<std::uint32_t>(milliseconds)));
      const auto taken = std::chrono::system_clock::now() - start;
      EXPECT_GE(taken, std::chrono::milliseconds(milliseconds));
      EXPECT_LT(taken, std::chrono::milliseconds(milliseconds + 30000));
    }
    event.Set();
    EXPECT_TRUE(event.Wait(0));
    EXPECT_EQ(event.Wait(0), manual_reset);
  }
}

TEST(Event, AutoResetWakesOneWaiterForEachSet) {
  Event event(false, false);
  Event woken(false, false);
  std::atomic<long> numbers[2]{};
  std::atomic<bool> is_woken[2]{};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i) {
    waiters.emplace_back([&, i] {
      numbers[i] = GetThreadNumber();
      EXPECT_TRUE(event.Wait());
      is_woken[i] = true;
      woken.Set();
    });
  }
  WaitUntilAsleep(numbers);
  event.Set();
  EXPECT_TRUE(woken.Wait(kLong));
  EXPECT_FALSE(woken.Wait(kShort));
  EXPECT_NE(is_woken[0], is_woken[1]);
  EXPECT_TRUE(IsAsleep(numbers[is_woken[0] ? 1 : 0]));
  event.Set();
  EXPECT_TRUE(woken.Wait(kLong));
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_FALSE(event.Wait(0));
}

TEST(Event, ManualResetWakesAllWaiters) {
  Event event(true, false);
  std::atomic<long> numbers[4]{};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&, i] {
      numbers[i] = GetThreadNumber();
      EXPECT_TRUE(i % 2 == 0 ? event.Wait() : event.Wait(kLong));
    });
  }
  WaitUntilAsleep(numbers);
  event.Set();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_TRUE(event.Wait(0));
}

// Whoever was woken may destroy the event while Set is still on its way out.
TEST(Event, MayBeDestroyedByTheThreadThatWaited) {
  for (int i = 0; i < 3000; ++i) {
    auto event = std::make_unique<Event>(i % 2 == 0, false);
    std::thread setter([signal = event.get()] { signal->Set(); });
    EXPECT_TRUE(i % 3 == 0 ? event->Wait(kLong) : event->Wait());
    event.reset();
    setter.join();
  }
}

// Waiters that give up race with Set: no signal is lost, none is taken twice.
TEST(Event, TimeoutsNeitherLoseNorDoubleASignal) {
  constexpr int kSignals = 2000;
  Event event(false, false);
  Event taken(false, false);
  std::atomic<int> count{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      while (!stop) {
        if (event.Wait(1)) {
          ++count;
          taken.Set();
        }
      }
    });
  }
  for (int i = 0; i < kSignals; ++i) {
    // Let waits run into their end at times.
    if (i % 20 == 0) Event(false, false).Wait(2);
    event.Set();
    ASSERT_TRUE(taken.Wait(kLong)) << "signal " << i << " was lost";
  }
  stop = true;
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(count, kSignals);
  EXPECT_FALSE(event.Wait(0));
}

TEST(Mutex, IsRecursiveAndShutsOthersOut) {
  Common::Mutex mutex;
  int count = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 2000; ++j) {
        const Common::MutexLock outer(mutex);
        const Common::MutexLock inner(mutex);
        ++count;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count, 6000);
}

}  // namespace
