#include "core/common/unix/static_mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Common::StaticMutex;
using Common::StaticMutexLock;

static_assert(std::is_trivially_destructible_v<StaticMutex>);
constinit StaticMutex plain_mutex;
constinit StaticMutex closed_mutex;
constinit StaticMutex closing_mutex;

// Threads that lock to a varying depth and count without further protection.
long CountWith(StaticMutex& mutex, int threads, int rounds, bool close_meanwhile) {
  long count = 0;
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i) {
    workers.emplace_back([&mutex, &count, i, rounds, close_meanwhile] {
      for (int round = 0; round < rounds; ++round) {
        const StaticMutexLock outer(mutex);
        if (round % 3 == 0) {
          const StaticMutexLock inner(mutex);
          const StaticMutexLock innermost(mutex);
          ++count;
        } else {
          ++count;
        }
        if (close_meanwhile && i == 0 && round == rounds / 2) mutex.Close();
        // Give others a chance to run into the lock.
        if (round % 8 == 0) std::this_thread::yield();
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  return count;
}

TEST(StaticMutex, IsRecursiveAndShutsOthersOut) {
  EXPECT_EQ(CountWith(plain_mutex, 4, 5000, false), 20000);
}

// From Close on every Lock gives the semaphore back when it can, while others come for it.
TEST(StaticMutex, WorksWhileAndAfterItIsClosed) {
  EXPECT_EQ(CountWith(closing_mutex, 4, 5000, true), 20000);
  closed_mutex.Close();
  EXPECT_EQ(CountWith(closed_mutex, 4, 5000, false), 20000);
  {
    const StaticMutexLock lock(closed_mutex);
    closed_mutex.Close();
  }
  EXPECT_EQ(CountWith(closed_mutex, 2, 100, false), 200);
}

TEST(StaticMutex, CloseDoesNotWaitForAnotherOwner) {
  static constinit StaticMutex mutex;
  mutex.Lock();
  std::thread([] { mutex.Close(); }).join();
  mutex.Unlock();
  EXPECT_EQ(CountWith(mutex, 2, 100, false), 200);
}

}  // namespace
