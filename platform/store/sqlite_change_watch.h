#pragma once

#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <string>

#include "platform/store/file_watch.h"
#include "platform/store/object_store.h"
#include "platform/store/sqlite_store.h"

namespace Platform::Store {

// Looks at a store through a connection of its own each time: one that stayed open would keep the
// last writer from moving the log into the main file. Such a look costs 50 µs, or several times as
// much after a sleep, the time stamps of the files hardly anything. So a look is left out where
// these haven't moved since the last one:
//
// - Without a log that proves that nothing has changed, if the file system's clock had left the
//   stamps behind by then. To be on the safe side, a look is taken every kSafetyPause.
// - With a log it proves little, as a change becomes visible some time after it was written; mostly
//   within kCommitTime, during which all looks are taken. Behind that, one every kLogPause.
// - A log that no living process has open must be read whole by each look. Where that takes long,
//   looks become rarer in proportion, up to one every kLongestPause; the first writer that changes
//   something moves the stamps.
class SqliteChangeWatch final : public ChangeWatch {
 public:
  using Clock = std::chrono::steady_clock;

  explicit SqliteChangeWatch(const SqliteStore& store) : store_(store) {}

  std::unique_ptr<ChangeLog> Look(bool always, const std::atomic<bool>& stop) override;
  int GetDescriptor() const override { return files_.GetDescriptor(); }
  bool TakeEvents() override { return files_.Take(); }

  // The least time from one look to the next where the stamps stand still, `cost` being the time
  // that the last one took.
  static Clock::duration GetPause(bool has_log, Clock::duration cost);

 private:
  struct FileStamps {
    bool operator==(const FileStamps&) const = default;

    unsigned long long number = 0;  // of the file; 0 for no file
    long long size = 0;
    // Nanoseconds of the real-time clock. The time of the last change of the file's attributes is
    // of no use: SQLite sets a log's owner each time a process of root opens it.
    long long modified = 0;
  };
  struct Stamps {
    bool operator==(const Stamps&) const = default;

    FileStamps main;
    FileStamps log;
  };

  static FileStamps GetFileStamps(const std::string& path);
  static bool IsLeftBehind(const FileStamps& stamps, long long now);

  const SqliteStore& store_;
  FileWatch files_;  // armed by each look that is taken
  std::string log_path_;
  Stamps stamps_;            // as they were right before the last look
  bool settled_ = false;     // the clock had left them behind by then
  Clock::time_point moved_;  // when they were last seen to have changed
  Clock::time_point looked_;
  Clock::duration cost_{};  // of the last look
};

}  // namespace Platform::Store
