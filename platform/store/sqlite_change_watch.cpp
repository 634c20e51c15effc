#include "platform/store/sqlite_change_watch.h"

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <utility>

namespace Platform::Store {

namespace {

constexpr long long kNanoseconds = 1'000'000'000;
// The coarsest stamps that file systems keep, FAT's.
constexpr long long kCoarseStamp = 2 * kNanoseconds;

constexpr std::chrono::milliseconds kCommitTime{500};
constexpr std::chrono::milliseconds kLogPause{60};
constexpr std::chrono::milliseconds kSafetyPause{1000};
// The least ratio of pauses to the cost of looks.
constexpr int kPauseForCost = 40;
constexpr std::chrono::seconds kLongestPause{10};

long long ToNanoseconds(const timespec& time) {
  return time.tv_sec * kNanoseconds + time.tv_nsec;
}

// The clock that stamps files.
long long GetStampClock() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return ToNanoseconds(now);
}

std::string ResolveLinks(const std::string& path) {
  char* const resolved = ::realpath(path.c_str(), nullptr);
  std::string result = resolved != nullptr ? resolved : path;
  ::free(resolved);
  return result;
}

}  // namespace

SqliteChangeWatch::FileStamps SqliteChangeWatch::GetFileStamps(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
  return {status.st_ino, status.st_size, ToNanoseconds(status.st_mtim)};
}

// Whatever is written from now on gets another stamp.
bool SqliteChangeWatch::IsLeftBehind(const FileStamps& stamps, long long now) {
  const bool is_coarse = stamps.modified % kNanoseconds == 0;
  return stamps.modified + (is_coarse ? kCoarseStamp : 0) < now;
}

SqliteChangeWatch::Clock::duration SqliteChangeWatch::GetPause(bool has_log, Clock::duration cost) {
  return std::max<Clock::duration>(has_log ? kLogPause : kSafetyPause,
                                   std::min<Clock::duration>(kPauseForCost * cost, kLongestPause));
}

std::unique_ptr<ChangeLog> SqliteChangeWatch::Look(bool always, const std::atomic<bool>& stop) {
  // In this order: what changes behind the stamps is found by them the next time.
  const long long stamp_now = GetStampClock();
  const Stamps stamps{GetFileStamps(store_.GetPath()), GetFileStamps(log_path_)};
  const Clock::time_point now = Clock::now();
  const bool has_moved = !(stamps == stamps_);
  if (!always && !has_moved && settled_ && stamps.main.number != 0) {
    const bool has_log = stamps.log.number != 0;
    if ((!has_log || now - moved_ > kCommitTime) && now - looked_ < GetPause(has_log, cost_)) {
      return nullptr;
    }
  }
  if (has_moved) moved_ = now;
  stamps_ = stamps;
  settled_ = false;  // a look that fails proves nothing
  // The log lies beside the file itself, not beside a link to it.
  const std::string path = ResolveLinks(store_.GetPath());
  log_path_ = path;
  log_path_.append("-wal");
  files_.Arm(path, log_path_);
  auto log = store_.ReadChanges(stop);
  settled_ = IsLeftBehind(stamps.main, stamp_now) && IsLeftBehind(stamps.log, stamp_now);
  looked_ = Clock::now();
  cost_ = looked_ - now;
  return log;
}

}  // namespace Platform::Store
