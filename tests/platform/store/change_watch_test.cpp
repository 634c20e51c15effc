#include <poll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <thread>

#include "platform/ipc/unique_descriptor.h"
#include "platform/store/change_follower.h"
#include "platform/store/look_pace.h"
#include "platform/store/sqlite_change_watch.h"
#include "platform/store/sqlite_store.h"
#include "tests/platform/store/store_fixture.h"

namespace Platform::Store {

namespace {

using namespace std::chrono_literals;

class StoreWatched : public StoreTest {
 protected:
  StoreWatched() { StoreNumbered(1); }
};

TEST_F(StoreWatched, EachLookThatFollowsAChangeFindsIt) {
  const SqliteStore store(path_);
  SqliteChangeWatch watch(store);
  const std::atomic<bool> stop{false};
  ASSERT_NE(watch.Look(false, stop), nullptr);
  for (long long number = 2; number < 50; ++number) {
    // Right behind a look that may or may not have been left out.
    if (number % 3 == 0) watch.Look(false, stop);
    Store({MakeObject(static_cast<int>(number), "Thing")});
    const auto log = watch.Look(false, stop);
    ASSERT_NE(log, nullptr) << number;
    ASSERT_EQ(log->GetLast(), number);
  }
  // A time stamp proves that nothing has changed only when the clock has left it behind.
  const auto now = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(path_, now + std::chrono::hours(1));
  EXPECT_NE(watch.Look(false, stop), nullptr);
  EXPECT_NE(watch.Look(false, stop), nullptr);
  std::filesystem::last_write_time(path_, now - std::chrono::hours(1));
  EXPECT_NE(watch.Look(false, stop), nullptr);
  bool is_quiet = false;
  for (int i = 0; i < 100 && !is_quiet; ++i) is_quiet = watch.Look(false, stop) == nullptr;
  EXPECT_TRUE(is_quiet);
  EXPECT_NE(watch.Look(true, stop), nullptr);
  // Behind a link the log lies beside the file.
  const std::string link = folder_ + "/link";
  std::filesystem::create_symlink(path_, link);
  const SqliteStore linked(link);
  SqliteChangeWatch linked_watch(linked);
  linked_watch.Look(true, stop);
  SqliteStoreWriter writer(path_);
  for (long long number = 50; number < 60; ++number) {
    writer.Begin();
    writer.Put(*Parse(MakeObject(static_cast<int>(number), "Thing")));
    writer.Commit();
    const auto seen = linked_watch.Look(false, stop);
    ASSERT_NE(seen, nullptr) << number;
    ASSERT_EQ(seen->GetLast(), number);
  }
}

TEST(SqliteChangeWatch, PausesGrowWithTheCostOfLooks) {
  using namespace std::chrono_literals;
  EXPECT_EQ(SqliteChangeWatch::GetPause(true, 50us), 60ms);
  EXPECT_EQ(SqliteChangeWatch::GetPause(false, 50us), 1s);
  EXPECT_EQ(SqliteChangeWatch::GetPause(false, 100ms), 4s);
  EXPECT_EQ(SqliteChangeWatch::GetPause(true, 1h), 10s);
}

// A writer makes a change visible some time after it has written it.
TEST_F(StoreWatched, AChangeBehindItsTimeStampsIsFound) {
  const SqliteStore store(path_);
  SqliteChangeWatch watch(store);
  const std::atomic<bool> stop{false};
  SqliteStoreWriter writer(path_);
  // Takes up the room in the log that the change will have.
  Execute(path_,
          "PRAGMA wal_autocheckpoint = 0; PRAGMA cache_size = 1; BEGIN;"
          "UPDATE objects SET data = zeroblob(1000000); DELETE FROM object_is; ROLLBACK");
  const std::string log = path_ + "-wal";
  const auto written = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  std::filesystem::last_write_time(log, written);
  const auto size = std::filesystem::file_size(log);
  watch.Look(true, stop);
  ASSERT_EQ(watch.Look(true, stop)->GetLast(), 1);
  writer.Begin();
  writer.Put(*Parse(MakeObject(2, "Thing")));
  writer.Commit();
  std::filesystem::last_write_time(log, written);
  ASSERT_EQ(std::filesystem::file_size(log), size);
  const auto seen = watch.Look(false, stop);
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(seen->GetLast(), 2);
}

// What is told lies in the descriptor when the call that did it is back.
TEST_F(StoreWatched, WritesAreToldAndReadingIsNot) {
  const SqliteStore store(path_);
  SqliteChangeWatch watch(store);
  const std::atomic<bool> stop{false};
  EXPECT_EQ(watch.GetDescriptor(), -1);
  EXPECT_FALSE(watch.TakeEvents());
  const auto expect_told = [&](const char* what) {
    pollfd wait{watch.GetDescriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&wait, 1, 0), 1) << what;
    EXPECT_TRUE(watch.TakeEvents()) << what;
    watch.Look(true, stop);
    watch.Look(true, stop);
    EXPECT_FALSE(watch.TakeEvents()) << what;
  };
  watch.Look(true, stop);
  {
    SqliteStoreWriter writer(path_);
    for (int number = 2; number < 5; ++number) {
      writer.Begin();
      writer.Put(*Parse(MakeObject(number, "Thing")));
      writer.Commit();
      expect_told("commit");
    }
  }
  expect_told("removal of the log");
  const std::string other = folder_ + "/other";
  std::filesystem::copy_file(path_, other);
  EXPECT_FALSE(watch.TakeEvents());
  std::filesystem::rename(other, path_);
  expect_told("another store");
  Store({MakeObject(5, "Thing")});
  expect_told("its commit");
  // More than the descriptor holds.
  std::size_t room = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> room;
  ASSERT_GT(room, 0U);
  std::ofstream(other).close();
  for (std::size_t i = 0; i <= room / 4; ++i) {
    std::filesystem::rename(other, other + "s");
    std::filesystem::rename(other + "s", other);
  }
  expect_told("loss");
}

TEST(LookPace, QuickBehindAnEventAndSlowWhileTheyAreInVain) {
  const auto start = LookPace::Clock::time_point(1h);
  struct Step {
    LookPace::Clock::duration at;
    bool had_events, has_found;
    LookPace::Clock::duration pause;
  };
  const std::vector<Step> cases[] = {
      // One change, found with the second look.
      {{0ms, false, false, 2ms},
       {160ms, false, false, 20ms},
       {170ms, true, false, 1ms},
       {171ms, false, true, 1ms},
       {175ms, false, false, 2500us},
       {190ms, false, false, 10ms},
       {400ms, false, false, 20ms}},
      // Events without an end: a look in between that has none doesn't help.
      {{1ms, true, false, 1ms},
       {2ms, true, false, 2ms},
       {4ms, true, false, 4ms},
       {8ms, false, false, 2ms},
       {9ms, true, false, 8ms},
       {17ms, true, false, 16ms},
       {33ms, true, false, 20ms},
       {53ms, true, false, 20ms},
       {73ms, true, true, 1ms},
       {74ms, true, false, 1ms},
       {75ms, true, false, 2ms},
       {175ms, false, false, 20ms},
       {176ms, true, false, 1ms}},
      // Changes without events.
      {{80ms, false, false, 10ms}, {90ms, false, true, 2ms}, {122ms, false, false, 4ms}}};
  for (const auto& steps : cases) {
    LookPace pace(start);
    for (const Step& step : steps) {
      const auto pause = pace.NoteLook(start + step.at, step.had_events, step.has_found);
      EXPECT_EQ(pause.time, step.pause) << step.at / 1ms;
      EXPECT_EQ(pause.is_ended_by_event, !step.had_events) << step.at / 1ms;
    }
  }
}

// A store whose watch tells what a test wants.
class ToldStore final : public ObjectStore {
 public:
  ToldStore(const std::string& path, int descriptor, bool concerns)
      : store_(path), descriptor_(descriptor), concerns_(concerns) {}
  const std::string& GetPath() const override { return store_.GetPath(); }
  std::unique_ptr<ObjectCursor> Select(const std::vector<IsKey>& demanded,
                                       const std::atomic<bool>& stop) const override {
    return store_.Select(demanded, stop);
  }
  std::unique_ptr<ChangeWatch> Watch() const override { return std::make_unique<ToldWatch>(*this); }
  void List(const std::function<void(const ObjectSummary&)>&) const override {}
  StoreStatistics GetStatistics() const override { return {}; }

  mutable std::atomic<int> looks{0};
  mutable std::atomic<int> takes{0};

 private:
  struct ToldWatch final : ChangeWatch {
    explicit ToldWatch(const ToldStore& store) : told(store), watch(store.store_) {}
    std::unique_ptr<ChangeLog> Look(bool always, const std::atomic<bool>& stop) override {
      ++told.looks;
      return watch.Look(always, stop);
    }
    int GetDescriptor() const override { return told.descriptor_; }
    bool TakeEvents() override {
      ++told.takes;
      return told.concerns_;
    }
    const ToldStore& told;
    SqliteChangeWatch watch;
  };

  const SqliteStore store_;
  const int descriptor_;
  const bool concerns_;
};

struct CreationReader final : Dml::SubscriptionReader {
  void OnCreated(const Por::View::Unit& object) override { created = GetNumber(object); }
  void OnUpdated(const Por::View::Unit&, const Por::View::Unit&) override {}
  void OnDeleted(const Por::View::Unit&) override {}
  unsigned int created = 0;
};

// Without a descriptor, and with one that tells something all the time: of the store or of others.
TEST_F(StoreWatched, ChangesAreFoundWhateverIsTold) {
  const Ipc::UniqueDescriptor full(::eventfd(1, EFD_CLOEXEC));
  int number = 1;
  for (const auto& [descriptor, concerns] :
       {std::pair(-1, false), std::pair(full.Get(), true), std::pair(full.Get(), false)}) {
    const auto store = std::make_shared<ToldStore>(path_, descriptor, concerns);
    ChangeFollower follower(store, *Por::GetStaticUnitFactory());
    const std::atomic<bool> stop{false};
    const auto view = std::make_shared<FollowedView>(ViewFilter(nullptr, std::nullopt),
                                                     store->Select({}, stop)->GetPosition());
    CreationReader reader;
    ToldOnce handler;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(view->Begin(reader, handler));
    ASSERT_TRUE(follower.Serve(view));
    std::this_thread::sleep_for(400ms);
    const int takes = store->takes;
    const int looks = store->looks;
    const auto time = std::chrono::steady_clock::now() - start;
    EXPECT_GT(looks, 1);
    EXPECT_LT(looks, time / 20ms + 40) << concerns;
    // Events are taken before each look, at once behind it, and then every 2 ms.
    EXPECT_LE(takes, time / 2ms + 2 * looks + 2) << concerns;
    Store({MakeObject(++number, "Thing")});
    EXPECT_EQ(handler.Wait().GetCode(), 0U);
    EXPECT_EQ(reader.created, static_cast<unsigned int>(number));
    follower.Stop({});
  }
}

}  // namespace

}  // namespace Platform::Store
