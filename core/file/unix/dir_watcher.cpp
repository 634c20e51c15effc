#include "core/file/unix/dir_watcher.h"

#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

#include "core/common/unix/safe_assert.h"
#include "core/file/unix/posix_dir.h"

namespace Core {
namespace {

// All of it outlives the static objects, which may hold directories. The plain types of the system
// have no destructors.
constinit pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
// Signalled when the ring gets its first watcher and when the thread shall end. Only the thread
// waits.
constinit pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
constinit DirWatcher* CurrentNotification = nullptr;  // the next to be looked at
constinit std::uint32_t NotificationCount = 0;        // in the ring
constinit bool is_started = false;
constinit bool is_stopping = false;
constinit pthread_t thread{};

constinit std::atomic<std::uint32_t> haste{1};

constexpr long kNanosecondsInSecond = 1000000000;
constexpr std::uint64_t kNanosecondsInMillisecond = 1000000;

// The nanoseconds of a time that no file has.
constexpr long kNeverSeen = -1;
constexpr long kNotFound = -2;

class Lock : Common::NonCopyable {
 public:
  Lock() noexcept { pthread_mutex_lock(&mutex); }
  ~Lock() { pthread_mutex_unlock(&mutex); }
};

void StopThread() {
  {
    const Lock lock;
    if (!is_started) return;
    SAFE_ASSERT(CurrentNotification == 0);
    SAFE_ASSERT(NotificationCount == 0);
    is_stopping = true;
    pthread_cond_signal(&condition);
  }
  const int res = pthread_join(thread, nullptr);
  SAFE_ASSERT(!res);
}

// Before main and not with the thread: so it runs behind the destructors of static objects, which
// may be directories with watchers.
[[maybe_unused]] const int registered = std::atexit(StopThread);

timespec GetDeadline(std::uint64_t nanoseconds) {
  timespec time;
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  nanoseconds += static_cast<std::uint64_t>(time.tv_nsec);
  time.tv_sec += static_cast<time_t>(nanoseconds / kNanosecondsInSecond);
  time.tv_nsec = static_cast<long>(nanoseconds % kNanosecondsInSecond);
  return time;
}

}  // namespace

int DirWatcher::StartThread() noexcept {
  const Lock lock;
  if (is_started) return 0;
  const int res = pthread_create(&thread, nullptr, RunThread, nullptr);
  is_started = res == 0;
  return res;
}

DirWatcher::Reference DirWatcher::Make(const std::string& path,
                                       std::shared_ptr<dir_callback> callback) {
  Reference watcher(new DirWatcher(path, std::move(callback)));
  watcher->Rearm();
  return watcher;
}

// The callback that is replaced is released by the parameter, behind the lock.
void DirWatcher::SetCallback(std::shared_ptr<dir_callback> callback) noexcept {
  const Lock lock;
  callback_.swap(callback);
  Insert();
}

void DirWatcher::Rearm() noexcept {
  const Lock lock;
  Insert();
}

void DirWatcher::Release() noexcept {
  {
    const Lock lock;
    if (--references_ != 0) return;
    TakeOut();
  }
  delete this;
}

void DirWatcher::SetHaste(std::uint32_t divisor) noexcept {
  haste.store(divisor, std::memory_order_relaxed);
}

void DirWatcher::Insert() noexcept {
  if (in_ring_) return;
  in_ring_ = true;
  ++NotificationCount;
  if (CurrentNotification == nullptr) {
    CurrentNotification = next_ = previous_ = this;
    pthread_cond_signal(&condition);
    return;
  }
  // The end of the ring is before its head.
  next_ = CurrentNotification;
  previous_ = next_->previous_;
  previous_->next_ = next_->previous_ = this;
}

void DirWatcher::TakeOut() noexcept {
  if (!in_ring_) return;
  in_ring_ = false;
  --NotificationCount;
  if (CurrentNotification == this) CurrentNotification = next_ != this ? next_ : nullptr;
  next_->previous_ = previous_;
  previous_->next_ = next_;
  next_ = previous_ = nullptr;
}

timespec DirWatcher::Look() const noexcept {
  struct stat status;
  return ::stat(path_.c_str(), &status) == 0 ? status.st_mtim : timespec{0, kNotFound};
}

void* DirWatcher::RunThread(void*) noexcept {
  const Lock lock;
  while (!is_stopping) {
    if (CurrentNotification == nullptr) {
      pthread_cond_wait(&condition, &mutex);
      continue;
    }
    LookAtNext();
    WaitForNextLook();
  }
  return nullptr;
}

void DirWatcher::LookAtNext() noexcept {
  DirWatcher& watcher = *CurrentNotification;
  CurrentNotification = watcher.next_;
  const timespec time = watcher.Look();
  timespec& seen = watcher.seen_;
  if (time.tv_sec == seen.tv_sec && time.tv_nsec == seen.tv_nsec) return;
  if (seen.tv_sec == 0 && seen.tv_nsec == kNeverSeen) {
    seen = time;
    return;
  }
  // What needs memory comes first: without it the change is found again with the next look.
  std::unique_ptr<posix_dir> directory;
  try {
    directory = std::make_unique<posix_dir>(watcher.path_);
  } catch (const std::bad_alloc&) {
    return;
  }
  ++watcher.references_;
  directory->watcher_.reset(&watcher);
  seen = time;
  watcher.TakeOut();
  std::shared_ptr<dir_callback> callback = watcher.callback_;
  pthread_mutex_unlock(&mutex);
  callback->OnDirChanged(*directory);
  directory.reset();
  callback.reset();
  pthread_mutex_lock(&mutex);
}

void DirWatcher::WaitForNextLook() noexcept {
  const timespec deadline = GetDeadline(GetInterval(NotificationCount) * kNanosecondsInMillisecond /
                                        haste.load(std::memory_order_relaxed));
  // The signal of a ring that fills again doesn't end the wait: the looks would come too fast.
  while (!is_stopping &&
         pthread_cond_clockwait(&condition, &mutex, CLOCK_MONOTONIC, &deadline) == 0) {
  }
}

}  // namespace Core
