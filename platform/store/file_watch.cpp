#include "platform/store/file_watch.h"

#include <limits.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <utility>

namespace Platform::Store {

namespace {

// The log alone tells of changes by writes: the store itself is written when the log moves into it,
// which is no change, and at a time when a look would only be in the way.
constexpr unsigned int kLogEvents = IN_MODIFY;
constexpr unsigned int kFolderEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;

constexpr std::size_t kLargestEvent = sizeof(inotify_event) + NAME_MAX + 1;
constexpr std::size_t kBufferSize = 16 * kLargestEvent;

}  // namespace

void FileWatch::Arm(const std::string& path, const std::string& log) {
  if (!inotify_) inotify_ = Ipc::UniqueDescriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_) return;
  const std::size_t folder_size = path.rfind('/') + 1;  // 0 without a folder
  name_ = path.substr(folder_size);
  log_name_ = log.substr(folder_size);
  Watch(folder_watch_, folder_size == 0 ? "." : path.substr(0, folder_size), kFolderEvents);
  Watch(log_watch_, log, kLogEvents);
}

// What is watched already keeps its number.
void FileWatch::Watch(int& watch, const std::string& path, unsigned int events) {
  const int added = ::inotify_add_watch(inotify_.Get(), path.c_str(), events);
  const int former = std::exchange(watch, added);
  // Fails when the file has gone, and its watch with it.
  if (former >= 0 && former != added) ::inotify_rm_watch(inotify_.Get(), former);
}

bool FileWatch::Take() {
  bool concerns = false;
  if (!inotify_) return concerns;
  char buffer[kBufferSize];
  ssize_t size;
  do {
    size = ::read(inotify_.Get(), buffer, sizeof buffer);
    inotify_event event{};
    for (const char* place = buffer; place < buffer + size; place += sizeof event + event.len) {
      std::memcpy(&event, place, sizeof event);
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        concerns = true;
      } else if (event.wd == log_watch_) {
        concerns |= (event.mask & IN_MODIFY) != 0;
      } else if (event.wd == folder_watch_) {
        // Without a name it is the folder itself that has gone.
        const char* const name = event.len > 0 ? place + sizeof event : "";
        concerns |= *name == '\0' || name_ == name || log_name_ == name;
      }
    }
    // Where another event had found room, there was none: whatever comes meanwhile, this ends.
  } while (size > static_cast<ssize_t>(kBufferSize - kLargestEvent));
  return concerns;
}

}  // namespace Platform::Store
