#include "core/file/unix/dir_watcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "core/file/unix/posix_dir.h"
#include "tests/core/file/unix/file_support.h"

namespace Core {
namespace {

using TestSupport::Codes;
using TestSupport::CodesOf;
using TestSupport::TemporaryFolder;

class Reports : public dir_callback {
 public:
  explicit Reports(std::function<void(i_dir&)> action = {}) : action_(std::move(action)) {}

  void OnDirChanged(i_dir& directory) override {
    if (action_) action_(directory);
    const std::lock_guard lock(mutex_);
    ++count_;
    path_ = dynamic_cast<posix_dir&>(directory).GetNarrowPath();
    changed_.notify_all();
  }
  int GetCount() {
    const std::lock_guard lock(mutex_);
    return count_;
  }
  std::string GetPath() {
    const std::lock_guard lock(mutex_);
    return path_;
  }
  // Whether there is one, within a moment.
  bool Await() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(1), [&] { return count_ != 0; });
  }

 private:
  const std::function<void(i_dir&)> action_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
  std::string path_;
};

void Rearm(i_dir& directory) {
  directory.RearmNotification();
}

// Gives the directory a time that it never had.
void Change(const std::string& path) {
  static time_t time = 1000000;
  const timespec times[] = {{++time, 0}, {time, 0}};
  EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// Waits until every directory that is watched now has been looked at, and its report, if any, is
// done: another one, which comes behind them in the turn, is reported with its second look.
void PassRound() {
  const TemporaryFolder folder;
  posix_dir last(folder.GetPath());
  const auto reports = std::make_shared<Reports>();
  last.EnableNotification(reports);
  constexpr int kManyTimes = 30000;
  for (int i = 0; i < kManyTimes; ++i) {
    Change(folder.GetPath());
    if (reports->Await()) return;
  }
  ADD_FAILURE() << "nobody looks";
}

class DirWatching : public testing::Test {
 protected:
  DirWatching() { DirWatcher::SetHaste(1000); }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.GetPath();
  std::unique_ptr<posix_dir> dir_ = std::make_unique<posix_dir>(path_);
};

TEST_F(DirWatching, ReportsAChangeBehindTheFirstLookOncePerArming) {
  const auto reports = std::make_shared<Reports>();
  dir_->SetError(MakeFileError(kFileUnsupported, {}));
  dir_->EnableNotification(reports);
  EXPECT_EQ(CodesOf(dir_->GetError()), Codes());
  PassRound();
  EXPECT_EQ(reports->GetCount(), 0) << "the first look";
  Change(path_);
  PassRound();
  EXPECT_EQ(reports->GetCount(), 1);
  EXPECT_EQ(reports->GetPath(), path_);
  Change(path_);
  PassRound();
  EXPECT_EQ(reports->GetCount(), 1) << "not armed";
  dir_->RearmNotification();
  dir_->RearmNotification();
  PassRound();
  EXPECT_EQ(reports->GetCount(), 2) << "what came in between";
  dir_->RearmNotification();
  PassRound();
  EXPECT_EQ(reports->GetCount(), 2) << "nothing new";
}

TEST_F(DirWatching, ReportsDirectoriesThatGoAndComeOnceEach) {
  const std::string path = folder_ / "sub";
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
  posix_dir sub(path);
  posix_dir missing(folder_ / "missing");
  const auto reports = std::make_shared<Reports>(&Rearm);
  const auto missing_reports = std::make_shared<Reports>(&Rearm);
  sub.EnableNotification(reports);
  missing.EnableNotification(missing_reports);
  PassRound();
  EXPECT_EQ(::rmdir(path.c_str()), 0);
  PassRound();
  PassRound();
  EXPECT_EQ(reports->GetCount(), 1);
  EXPECT_EQ(::mkdir(path.c_str(), 0700), 0);
  PassRound();
  PassRound();
  EXPECT_EQ(reports->GetCount(), 2);

  EXPECT_EQ(missing_reports->GetCount(), 0);
  EXPECT_EQ(::mkdir(missing.GetNarrowPath().c_str(), 0700), 0);
  PassRound();
  EXPECT_EQ(missing_reports->GetCount(), 1);
}

TEST_F(DirWatching, MayEndInACallback) {
  // The report's own directory has the last reference, though it is back in the turn.
  auto reports = std::make_shared<Reports>([&](i_dir& directory) {
    dir_->EnableNotification(nullptr);
    directory.RearmNotification();
  });
  const std::weak_ptr<Reports> observer = reports;
  dir_->EnableNotification(reports);
  PassRound();
  Change(path_);
  PassRound();
  Change(path_);
  PassRound();
  EXPECT_EQ(reports->GetCount(), 1);
  reports.reset();
  EXPECT_TRUE(observer.expired());
}

TEST_F(DirWatching, DoesNotWaitForACallback) {
  std::promise<void> entered;
  std::promise<void> leave;
  auto reports = std::make_shared<Reports>([&](i_dir& directory) {
    entered.set_value();
    leave.get_future().wait();
    directory.RearmNotification();
  });
  const std::weak_ptr<Reports> observer = reports;
  posix_dir other("/");
  dir_->EnableNotification(reports);
  PassRound();
  Change(path_);
  entered.get_future().wait();
  // While it runs:
  other.EnableNotification(std::make_shared<Reports>());
  other.EnableNotification(nullptr);
  dir_->RearmNotification();
  dir_.reset();
  EXPECT_EQ(reports->GetCount(), 0);
  Change(path_);
  leave.set_value();
  PassRound();
  EXPECT_EQ(reports->GetCount(), 1);
  reports.reset();
  EXPECT_TRUE(observer.expired());
}

TEST_F(DirWatching, GoesOnWithAnotherCallback) {
  auto first = std::make_shared<Reports>();
  const std::weak_ptr<Reports> observer = first;
  dir_->EnableNotification(std::move(first));
  PassRound();
  const auto second = std::make_shared<Reports>();
  Change(path_);
  dir_->EnableNotification(nullptr);
  EXPECT_TRUE(observer.expired());
  dir_->EnableNotification(nullptr);
  dir_->RearmNotification();
  EXPECT_EQ(CodesOf(dir_->GetError()), Codes());

  dir_->EnableNotification(second);
  PassRound();
  EXPECT_EQ(second->GetCount(), 0) << "a first look again";
  const auto third = std::make_shared<Reports>();
  dir_->EnableNotification(third);
  EXPECT_EQ(second.use_count(), 1);
  Change(path_);
  PassRound();
  EXPECT_EQ(second->GetCount(), 0);
  EXPECT_EQ(third->GetCount(), 1) << "no first look";
  const auto fourth = std::make_shared<Reports>();
  Change(path_);
  dir_->EnableNotification(fourth);
  PassRound();
  EXPECT_EQ(third->GetCount(), 1);
  EXPECT_EQ(fourth->GetCount(), 1) << "armed again";
}

TEST(DirWatchingIntervals, AreASecondForAllButNeverBelowATenth) {
  static const std::pair<unsigned, unsigned> kIntervals[] = {
      {0, 1000}, {1, 1000}, {2, 500}, {3, 333}, {9, 111}, {10, 100}, {11, 100}, {5000, 100},
  };
  for (const auto& [count, milliseconds] : kIntervals) {
    EXPECT_EQ(DirWatcher::GetInterval(count), milliseconds) << count;
  }
}

class DirWatchingDeathTest : public testing::Test {
 protected:
  DirWatchingDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_F(DirWatchingDeathTest, TheProcessEndsWithItsThread) {
  // A static directory goes before the watch ends.
  EXPECT_EXIT(
      {
        static posix_dir dir("/");
        dir.EnableNotification(std::make_shared<Reports>());
        std::exit(7);
      },
      testing::ExitedWithCode(7), "^$");
  EXPECT_EXIT(
      {
        static auto* const dir = new posix_dir("/");
        dir->EnableNotification(std::make_shared<Reports>());
        std::exit(7);
      },
      testing::ExitedWithCode(7), "CurrentNotification == 0.*NotificationCount == 0");
}

// The first thread of the process gets a stack for which there is no room.
bool StartsAtTheSecondTry() {
  pthread_attr_t attributes;
  std::size_t size = 0;
  pthread_getattr_default_np(&attributes);
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_setstacksize(&attributes, std::size_t{1} << 60);
  pthread_setattr_default_np(&attributes);
  posix_dir dir("/");
  const auto reports = std::make_shared<Reports>();
  dir.EnableNotification(reports);
  if (CodesOf(dir.GetError()) != Codes{0x40007, 0xFFF1}) return false;
  dir.RearmNotification();
  pthread_attr_setstacksize(&attributes, size);
  pthread_setattr_default_np(&attributes);
  dir.EnableNotification(reports);
  if (dir.HasFailed() || reports.use_count() != 2) return false;
  DirWatcher::SetHaste(1000);
  PassRound();
  return !testing::Test::HasFailure();
}

TEST_F(DirWatchingDeathTest, AThreadThatDoesNotStartIsAskedForAgain) {
  EXPECT_EXIT(std::exit(StartsAtTheSecondTry() ? 0 : 1), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Core
