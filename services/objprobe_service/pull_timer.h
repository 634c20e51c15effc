#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "core/common/non_copyable.h"

namespace ObjProbeService {

// Tells those who wait that they have waited long enough, all of them the same time. One thread,
// from the first wait on. Threads: any.
class PullTimer : public Common::NonCopyable {
 public:
  class Waiter {
   public:
    virtual ~Waiter() = default;
    // On the thread of the timer, with nothing held. `number` is that of the wait.
    virtual void OnWaited(std::uint64_t number) = 0;
  };

  explicit PullTimer(std::chrono::milliseconds wait) : wait_(wait) {}
  // Drops all waits. No call is under way when it has returned.
  ~PullTimer();

  // Begins a wait and returns its number, never 0. Throws std::bad_alloc or std::system_error.
  std::uint64_t Add(std::weak_ptr<Waiter> waiter);
  // A call that is under way goes on.
  void Remove(std::uint64_t number);

 private:
  using Clock = std::chrono::steady_clock;

  struct Wait {
    Clock::time_point end;
    std::weak_ptr<Waiter> waiter;
  };

  void Run();

  const std::chrono::milliseconds wait_;
  std::mutex mutex_;  // guards the fields below
  std::condition_variable change_;
  std::map<std::uint64_t, Wait> waits_;  // in the order in which they end
  std::uint64_t last_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace ObjProbeService
