#include "core/common/unix/mutex.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <vector>

#include "core/common/unix/static_mutex.h"
#include "tests/core/common/unix/thread_state.h"
#include "tests/support/allocation_watch.h"

namespace {
constinit std::atomic<int> semaphores{0};  // made and not destroyed
constinit std::atomic<int> expected{0};    // threads that make a semaphore only when all have come
}  // namespace

// Stand before the C library's.
extern "C" int sem_init(sem_t* semaphore, int shared, unsigned int value) noexcept {
  ++semaphores;
  if (expected > 0) {
    --expected;
    while (expected > 0) std::this_thread::yield();
  }
  static const auto next = reinterpret_cast<decltype(&sem_init)>(dlsym(RTLD_NEXT, "sem_init"));
  return next(semaphore, shared, value);
}
extern "C" int sem_destroy(sem_t* semaphore) noexcept {
  --semaphores;
  static const auto next =
      reinterpret_cast<decltype(&sem_destroy)>(dlsym(RTLD_NEXT, "sem_destroy"));
  return next(semaphore);
}

namespace {

using Common::StaticMutex;
using Common::StaticMutexLock;

static_assert(std::is_trivially_destructible_v<StaticMutex>);

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

// Threads that lock to a varying depth and count without further protection. In the middle the
// first of them calls `in_the_middle`.
template <class Lock, class Mutex, class Action>
void ExpectExclusion(Mutex& mutex, Action in_the_middle) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  int count = 0;
  std::vector<std::thread> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back([&, i] {
      for (int round = 0; round < kRounds; ++round) {
        const Lock outer(mutex);
        if (round % 3 == 0) {
          const Lock inner(mutex);
          const Lock innermost(mutex);
          ++count;
        } else {
          ++count;
        }
        if (i == 0 && round == kRounds / 2) in_the_middle();
        // Give others a chance to run into the lock.
        if (round % 8 == 0) std::this_thread::yield();
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(count, kThreads * kRounds);
}

void ExpectExclusion(StaticMutex& mutex) {
  ExpectExclusion<StaticMutexLock>(mutex, [] {});
}

TEST(Mutex, IsRecursiveAndShutsOthersOut) {
  Common::Mutex mutex;
  ExpectExclusion<Common::MutexLock>(mutex, [] {});
}

// From Close on every Lock gives the semaphore back when it can, while others come for it.
TEST(StaticMutex, ShutsOthersOutBeforeWhileAndAfterItIsClosed) {
  static constinit StaticMutex mutex;
  const int before = semaphores;
  ExpectExclusion(mutex);
  ExpectExclusion<StaticMutexLock>(mutex, [] { mutex.Close(); });
  ExpectExclusion(mutex);

  // It may be closed while it is taken, by its owner or by another thread.
  static constinit StaticMutex other;
  other.Lock();
  std::thread([] { other.Close(); }).join();
  other.Close();
  other.Unlock();
  ExpectExclusion(other);
  EXPECT_EQ(semaphores, before);
}

TEST(StaticMutex, MakesASemaphoreAtTheFirstConflictAndGivesItBackOnceClosed) {
  static constinit StaticMutex other;
  static constinit StaticMutex mutex;
  {
    const TestSupport::AllocationWatch watch;
    LockAlone(mutex);
    mutex.Close();
    EXPECT_EQ(watch.GetCount(), 0u);
  }
  const int before = semaphores;
  Contend(other);
  Contend(other);
  LockAlone(other);
  EXPECT_EQ(semaphores, before + 1) << "one is enough";
  other.Close();
  EXPECT_EQ(semaphores, before);

  Contend(mutex);
  LockAlone(mutex);
  EXPECT_EQ(semaphores, before) << "closed before the conflict";
}

TEST(StaticMutex, OfTwoThreadsThatMakeASemaphoreOneWins) {
  static constinit StaticMutex mutex;
  const int before = semaphores;
  mutex.Lock();
  expected = 2;
  std::thread left([] { LockAlone(mutex); });
  std::thread right([] { LockAlone(mutex); });
  while (expected > 0) std::this_thread::yield();
  mutex.Unlock();
  left.join();
  right.join();
  EXPECT_EQ(semaphores, before + 1);
}

}  // namespace
