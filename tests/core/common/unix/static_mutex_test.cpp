#include "core/common/unix/static_mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/core/common/unix/live_allocations.h"
#include "tests/core/common/unix/thread_state.h"

namespace {

using Common::StaticMutex;
using Common::StaticMutexLock;

static_assert(std::is_trivially_destructible_v<StaticMutex>);
constinit StaticMutex plain_mutex;
constinit StaticMutex closed_mutex;
constinit StaticMutex closing_mutex;

// One thread comes for the lock while another one has it.
void Contend(StaticMutex& mutex) {
  std::atomic<long> waiter[1]{};
  mutex.Lock();
  std::thread thread([&] {
    waiter[0] = GetThreadNumber();
    const StaticMutexLock lock(mutex);
  });
  WaitUntilAsleep(waiter);
  mutex.Unlock();
  thread.join();
}

void LockAlone(StaticMutex& mutex) {
  const StaticMutexLock outer(mutex);
  const StaticMutexLock inner(mutex);
}

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

TEST(StaticMutex, AllocatesAtTheFirstConflictAndGivesBackOnceClosed) {
  static constinit StaticMutex other;
  static constinit StaticMutex mutex;
  Contend(other);  // what threads and files allocate once in a process
  const long live = CountLiveAllocations();
  const long made = CountAllocations();
  LockAlone(mutex);
  mutex.Close();
  EXPECT_EQ(CountAllocations(), made);

  Contend(other);
  EXPECT_EQ(CountLiveAllocations(), live) << "one semaphore is enough";
  other.Close();
  EXPECT_EQ(CountLiveAllocations(), live - 1);

  Contend(mutex);
  LockAlone(mutex);
  EXPECT_EQ(CountLiveAllocations(), live - 1) << "closed before the conflict";
}

// Close can't give back what another thread's lock may need; the next lock does.
TEST(StaticMutex, ClosedByAnotherThreadGivesBackAtTheNextLock) {
  static constinit StaticMutex mutex;
  Contend(mutex);
  const long live = CountLiveAllocations();
  LockAlone(mutex);
  EXPECT_EQ(CountLiveAllocations(), live) << "open";
  mutex.Lock();
  std::thread([] { mutex.Close(); }).join();
  mutex.Unlock();
  EXPECT_EQ(CountLiveAllocations(), live);
  LockAlone(mutex);
  EXPECT_EQ(CountLiveAllocations(), live - 1);
}

}  // namespace
