#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace Async::Testing {

// Runs small scenarios of up to four threads through all their interleavings, depth first.
//
// Only one thread runs at a time; it hands over at its points: before each access to a shared
// word and where the scenario says Point. The same choices give the same run, so a branch is
// explored by running the scenario again with the recorded choices and a new one at the end.
// A bound on the changes away from a thread that could have gone on keeps larger scenarios short.
// A branch is not followed where the whole state has been seen before: what the threads share
// (Scenario::Snapshot) together with what each of them keeps in locals. That is told by Remember
// and, up to the next Remember or Glance, by Glance.
class InterleavingExplorer {
 public:
  class Scenario {
   public:
    virtual ~Scenario() = default;
    // The threads' bodies; called once per schedule.
    virtual std::vector<std::function<void()>> Threads() = 0;
    // A hash of everything that the threads share.
    virtual std::uint64_t Snapshot() const = 0;
    // After all threads have ended.
    virtual void Check() = 0;
  };

  InterleavingExplorer();
  ~InterleavingExplorer();

  static constexpr int kUnbounded = -1;

  // Explores all interleavings with at most `preemptions` such changes, or stops at the first one
  // that fails. Returns the failure with its schedule, empty if there is none.
  std::string Explore(const std::function<std::unique_ptr<Scenario>()>& make,
                      int preemptions = kUnbounded);
  std::size_t Schedules() const { return schedules_; }

  // Called by the threads of a scenario; without effect from others.
  //
  // Another thread may run here.
  void Point();
  // Others run until `ready`.
  void Await(const std::function<bool()>& ready);
  // The current thread has gone on for good, and has learned `value` from shared state if it keeps
  // any of it.
  void Remember(std::uint64_t value);
  // It has looked at `value` and holds it only until it looks again.
  void Glance(std::uint64_t value);
  // All that the current thread has remembered; 0 outside a schedule.
  std::uint64_t History() const;
  // Number of the running thread; -1 outside a schedule.
  int Current() const;
  // The scenario is wrong. Recorded; the schedule goes on.
  void Fail(const std::string& what);
  // The same where going on would touch freed memory or never end. Ends the process.
  [[noreturn]] void Abort(const std::string& what);

  static std::uint64_t Mix(std::uint64_t hash, std::uint64_t value);

 private:
  static constexpr std::size_t kMaxThreads = 4;

  struct Thread {
    std::binary_semaphore go{0};
    std::function<void()> body;
    std::function<bool()> ready;  // null: can run
    bool done = true;
    std::uint64_t remembered = 0;
    std::uint64_t glance = 0;
    std::thread system;
  };
  struct Choice {
    std::vector<int> options;
    std::size_t index = 0;
  };

  Thread& At(int number) { return threads_[static_cast<std::size_t>(number)]; }
  const Thread& At(int number) const { return threads_[static_cast<std::size_t>(number)]; }
  void Loop(int number);
  void RunSchedule();
  // Picks who runs next; -1 when all have ended.
  int PickNext(int running);
  void Resume(int number);
  int Choose(std::vector<int> enabled, int running);
  bool NextSchedule();
  std::string Trail() const;

  std::array<Thread, kMaxThreads> threads_;
  std::binary_semaphore ended_{0};
  Scenario* scenario_ = nullptr;
  std::vector<Choice> path_;
  std::size_t depth_ = 0;
  std::vector<int> trail_;  // who ran, point by point
  std::unordered_set<std::uint64_t> seen_;
  int max_preemptions_ = kUnbounded;
  int preemptions_ = 0;  // in this schedule
  std::size_t schedules_ = 0;
  std::string failure_;
};

}  // namespace Async::Testing
