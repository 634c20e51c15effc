#include "core/common/unix/static_mutex.h"

#include <sched.h>

#include <cstdint>
#include <new>

namespace Common {
namespace {

// Marks a semaphore that its owner is discarding.
sem_t* Discarding() {
  return reinterpret_cast<sem_t*>(~std::uintptr_t{0});
}

}  // namespace

sem_t* StaticMutex::GetSemaphore() noexcept {
  for (;;) {
    sem_t* current = semaphore_.load();
    if (current == Discarding()) {
      sched_yield();
      continue;
    }
    if (current != nullptr) return current;
    sem_t* const made = new (std::nothrow) sem_t;
    if (made == nullptr) {
      // Neither side can go on without it: a waiter would break in, a waker would lose the waiter.
      sched_yield();
      continue;
    }
    sem_init(made, 0, 0);
    if (semaphore_.compare_exchange_strong(current, made)) return made;
    sem_destroy(made);
    delete made;
  }
}

void StaticMutex::WaitForTurn() noexcept {
  // Stays valid: the semaphore is discarded only while nobody waits.
  sem_t* const semaphore = GetSemaphore();
  while (sem_wait(semaphore) != 0) {
  }
}

void StaticMutex::WakeNext() noexcept {
  sem_post(GetSemaphore());
}

void StaticMutex::DiscardSemaphore() noexcept {
  sem_t* const semaphore = semaphore_.load();
  if (semaphore == nullptr || count_.load() != static_cast<long long>(depth_)) return;
  // A thread that comes counts itself before it looks at the semaphore. So either it shows in the
  // count now, or it finds the mark and waits until the outcome is known.
  semaphore_.exchange(Discarding());
  if (count_.load() != static_cast<long long>(depth_)) {
    semaphore_.store(semaphore);
    return;
  }
  semaphore_.store(nullptr);
  sem_destroy(semaphore);
  delete semaphore;
}

void StaticMutex::Close() noexcept {
  closing_.store(true, std::memory_order_relaxed);
  // Never waits for the lock at shutdown: if it is taken, the next Lock discards.
  long long free = 0;
  if (count_.compare_exchange_strong(free, 1)) {
    Own(pthread_self());
    DiscardSemaphore();
    Unlock();
  } else if (owner_.load(std::memory_order_relaxed) == pthread_self()) {
    DiscardSemaphore();
  }
}

}  // namespace Common
