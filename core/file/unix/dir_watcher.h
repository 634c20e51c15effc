#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

#include "core/common/non_copyable.h"
#include "core/include/file/dir.h"

namespace Core {

// Watches one directory: reports when the time of its last modification changes. One thread of the
// process looks at the directories of all watchers in turn, about once a second at each of them and
// at most ten times a second in sum. There is no notification by the system: what comes and goes
// between two looks shows as one change, and what doesn't touch that time not at all.
//
// The first look only notes the time. A directory that can't be looked at has a time of its own, so
// that it is reported once when it goes and once when it comes.
//
// A report takes the watcher out of the turn until Rearm. The callback runs on the thread of the
// looks, without a lock, on a directory that shares the watcher; looks at all directories wait for
// its end, and so does the end of the process. No other call waits for it. When the process ends
// all watchers must be gone; asserted.
//
// Counted: the last Release frees it. All functions may be called by any thread, and by callbacks.
class DirWatcher : Common::NonCopyable {
 public:
  struct Releaser {
    void operator()(DirWatcher* watcher) const noexcept { watcher->Release(); }
  };
  // One reference.
  using Reference = std::unique_ptr<DirWatcher, Releaser>;

  // Starts the thread unless that was done. 0, or the error number of pthread_create; the next call
  // tries it again then.
  static int StartThread() noexcept;
  // Watches the directory from now on. The path is absolute. Throws std::bad_alloc.
  static Reference Make(const std::string& path, std::shared_ptr<dir_callback> callback);

  // The next reports go to `callback`. The time that was seen last stays.
  void SetCallback(std::shared_ptr<dir_callback> callback) noexcept;
  // Back to the end of the turn, if it isn't there.
  void Rearm() noexcept;

  // The milliseconds between two looks when `count` directories are watched.
  static constexpr std::uint32_t GetInterval(std::uint32_t count) noexcept {
    constexpr std::uint32_t kRound = 1000;
    constexpr std::uint32_t kLeast = 100;
    if (count == 0) return kRound;
    return kRound / count < kLeast ? kLeast : kRound / count;
  }
  // For tests: all intervals are `divisor` times shorter, from the next one on. Not 0.
  static void SetHaste(std::uint32_t divisor) noexcept;

 private:
  DirWatcher(const std::string& path, std::shared_ptr<dir_callback> callback)
      : path_(path), callback_(std::move(callback)) {}
  ~DirWatcher() = default;

  static void* RunThread(void*) noexcept;
  // With the mutex, which a callback's run gives up. Nothing of a watcher may be used behind it.
  static void LookAtNext() noexcept;
  static void WaitForNextLook() noexcept;

  void Release() noexcept;
  // With the mutex.
  timespec Look() const noexcept;
  void Insert() noexcept;
  void TakeOut() noexcept;

  const std::string path_;
  // The rest is guarded by the one mutex.
  std::shared_ptr<dir_callback> callback_;
  timespec seen_{0, -1};
  bool in_ring_ = false;
  std::uint32_t references_ = 1;
  DirWatcher* next_ = nullptr;
  DirWatcher* previous_ = nullptr;
};

}  // namespace Core
