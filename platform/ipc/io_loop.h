#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <span>

#include "core/common/non_copyable.h"

namespace Platform::Ipc {

// A descriptor whose readiness is waited for. Borrows it, and goes before it is closed; what waits
// is dropped then. On the loop's thread alone. At most one wait of each kind at a time.
class IoWatch : public Common::NonCopyable {
 public:
  virtual ~IoWatch() = default;
  // Calls `ready` once, on the loop's thread and not from inside, when there is something to read
  // (or an end, or a failure), or room to write.
  virtual void WaitReadable(std::function<void()> ready) = 0;
  virtual void WaitWritable(std::function<void()> ready) = 0;
};

// On the loop's thread alone. What waits when it goes is dropped.
class IoTimer : public Common::NonCopyable {
 public:
  virtual ~IoTimer() = default;
  // Calls `expired` once; an earlier wait is dropped.
  virtual void Wait(std::chrono::steady_clock::duration time, std::function<void()> expired) = 0;
};

// The one thread that looks after the connections of an end. Nothing that may block runs on it.
class IoLoop : public Common::NonCopyable {
 public:
  // Starts the thread. Throws std::system_error, with the system's errno, when there is no thread
  // or no descriptor for it; std::bad_alloc.
  static std::unique_ptr<IoLoop> Create();
  // Stops.
  virtual ~IoLoop() = default;

  // Runs `task` on the loop's thread, in the order of the calls. False, and the task is dropped,
  // after Stop. Threads: any. Throws std::bad_alloc.
  virtual bool Post(std::function<void()> task) = 0;
  // The same, but tries again until there is memory: for what an end can't do without. Not on the
  // loop's thread.
  bool PostAtLast(const std::function<void()>& task) noexcept;
  virtual bool IsOwnThread() const = 0;
  // Waits until what was posted has run and no watch and no timer waits any more: whoever stops the
  // loop has seen to that. Then the thread is gone. Not on the loop's thread.
  virtual void Stop() = 0;

  // On the loop's thread. Throws std::system_error, with the system's errno; std::bad_alloc.
  virtual std::unique_ptr<IoWatch> CreateWatch(int descriptor) = 0;
  virtual std::unique_ptr<IoTimer> CreateTimer() = 0;
  // Memory for what is read, whose content lasts as long as the call that is running.
  virtual std::span<unsigned char> GetScratch() = 0;
};

}  // namespace Platform::Ipc
