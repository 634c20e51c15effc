#include "core/common/unix/event.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "tests/core/common/unix/thread_state.h"

namespace {

using Common::Event;

constexpr std::uint32_t kLong = 60000;  // a wait that is to succeed
constexpr std::uint32_t kShort = 30;    // a wait that is to fail

TEST(Event, AWaitConsumesTheSignalUnlessItStaysUntilReset) {
  for (const bool manual_reset : {false, true}) {
    Event event(manual_reset, true);
    EXPECT_TRUE(event.Wait(0));
    EXPECT_EQ(event.Wait(0), manual_reset);
    event.Set();
    event.Set();
    EXPECT_TRUE(event.Wait());
    EXPECT_EQ(event.Wait(0), manual_reset);
    event.Set();
    event.Reset();
    EXPECT_FALSE(event.Wait(0));

    // It gives up after its time and leaves a later signal. Past a second, so that the microseconds
    // of the deadline carry in most runs.
    const std::chrono::milliseconds time(manual_reset ? 10 : 1100);
    const auto start = std::chrono::system_clock::now();
    EXPECT_FALSE(event.Wait(static_cast<std::uint32_t>(time.count())));
    const auto taken = std::chrono::system_clock::now() - start;
    EXPECT_GE(taken, time);
    EXPECT_LT(taken, time + std::chrono::seconds(30));
    event.Set();
    EXPECT_TRUE(event.Wait(0));
  }
}

TEST(Event, AutoResetWakesTheFirstWaiterForEachSetAndManualResetAll) {
  for (const bool manual_reset : {false, true}) {
    Event event(manual_reset, false);
    Event woken(false, false);
    std::atomic<long> numbers[2]{};
    std::atomic<bool> is_woken[2]{};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
      waiters.emplace_back([&, i] {
        numbers[i] = GetThreadNumber();
        EXPECT_TRUE(i == 0 ? event.Wait() : event.Wait(kLong));
        is_woken[i] = true;
        woken.Set();
      });
      WaitUntilAsleep(std::span(numbers, static_cast<std::size_t>(i + 1)));
    }
    event.Set();
    if (!manual_reset) {
      EXPECT_TRUE(woken.Wait(kLong));
      EXPECT_FALSE(woken.Wait(kShort));
      EXPECT_TRUE(is_woken[0]);
      EXPECT_TRUE(IsAsleep(numbers[1]));
      event.Set();
    }
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(event.Wait(0), manual_reset);
  }
}

// Whoever was woken may destroy the event while Set is still on its way out, and use its memory for
// something else. Most waiters are met in their busy wait, some behind it.
TEST(Event, MayBeDestroyedByTheThreadThatWaited) {
  constexpr int kRounds = 20000;
  constexpr unsigned char kReused = 0xA5;
  alignas(Event) unsigned char memory[sizeof(Event)];
  std::atomic<Event*> to_set{nullptr};
  std::atomic<int> rounds_set{0};
  std::thread setter([&] {
    for (int i = 0; i < kRounds; ++i) {
      Event* event;
      while ((event = to_set.exchange(nullptr)) == nullptr) std::this_thread::yield();
      for (int delay = i % 50 == 0 ? 50000 : i % 40 * 5; delay > 0; --delay) rounds_set.load();
      event->Set();
      rounds_set = i + 1;
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    auto* const event = new (memory) Event(i % 2 == 0, false);
    to_set = event;
    EXPECT_TRUE(i % 3 == 0 ? event->Wait(kLong) : event->Wait());
    event->~Event();
    std::memset(memory, kReused, sizeof memory);
    while (rounds_set != i + 1) std::this_thread::yield();
    ASSERT_EQ(std::count(memory, memory + sizeof memory, kReused), sizeof memory) << i;
  }
  setter.join();
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

}  // namespace
