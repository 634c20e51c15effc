#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/cyclic_runner.h"
#include "enterprise/common/async/waiting_handler.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/dml/subscribe_without_report.h"
#include "enterprise/common/por/unit_operations.h"
#include "platform/store/report_threads.h"
#include "platform/store/sqlite_store.h"
#include "platform/store/store_subscription.h"
#include "platform/store/subscribe_job.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/support/run_program.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

namespace Platform::Store {

namespace {

using Events = std::vector<std::string>;
using Numbers = std::vector<unsigned int>;

std::string MakeVersion(int number, unsigned int version, const std::string& type = "Thing") {
  return MakeObject(number, type, ".Property(\"V\").DWord(" + std::to_string(version) + ").End()");
}

std::string GetVersion(const Por::View::Unit& unit) {
  const Por::View::Property* version = Por::Util::FindProperty(unit, "V");
  std::string text;
  if (version != nullptr) {
    text.append("v").append(std::to_string(Por::Util::GetValue<unsigned int>(version->GetValue())));
  }
  return text;
}

std::string MakeEvent(char kind, long long number, const std::string& version = "") {
  return std::string(1, kind).append(std::to_string(number)).append(version);
}

// The number of an object, from its identification in any form.
std::string GetNumberText(const Common::String& id) {
  return std::to_string(std::stoul(TestSupport::Utf8(id).substr(0, 8), nullptr, 16));
}

// Notes what comes: "+1v2" created, "~1v3" updated, "-1" deleted. Then lets `on_event` do more.
class EventReader final : public Dml::SubscriptionReader {
 public:
  explicit EventReader(std::function<void(const std::string&)> on_event = nullptr)
      : on_event_(std::move(on_event)) {}
  void OnCreated(const Por::View::Unit& object) override {
    Add('+', Dml::GetObjectKey(object), GetVersion(object));
  }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    Add('~', Dml::GetObjectKeyFromKey(key), GetVersion(diff));
  }
  void OnDeleted(const Por::View::Unit& key) override {
    Add('-', Dml::GetObjectKeyFromKey(key), "");
  }

  Events events;

 private:
  void Add(char kind, const Common::String& id, const std::string& version) {
    events.push_back(std::string(1, kind).append(GetNumberText(id)).append(version));
    if (on_event_) on_event_(events.back());
  }

  const std::function<void(const std::string&)> on_event_;
};

// A read that was begun.
struct BegunRead {
  explicit BegunRead(Dml::Subscription& subscription,
                     std::function<void(const std::string&)> on_event = nullptr)
      : reader(std::move(on_event)), job(subscription.Read(reader, handler)) {}
  // The code of its result.
  std::uint32_t Wait() { return handler.Wait().GetCode(); }

  EventReader reader;
  ToldOnce handler;
  const std::shared_ptr<Async::Job> job;
};

class VersionReader final : public Dml::ReportReader {
 public:
  void Read(const Por::View::Unit& object) override {
    versions[GetNumberText(Dml::GetObjectKey(object))] = GetVersion(object);
  }
  std::map<std::string, std::string> versions;
};

class StoreSubscribe : public StoreTest {
 protected:
  using Owned = std::unique_ptr<Dml::Subscription>;

  static Common::Error Subscribe(Dml::PostOffice& office, const Dml::ViewSpec& spec,
                                 Dml::ReportReader& reader, Owned& subscription) {
    Dml::Actions::Subscribe action(Core::EntryPoint(), spec, reader, subscription, office);
    ToldOnce handler;
    Async::JobControl control;
    control.Run(action, handler, nullptr);
    return handler.Wait();
  }
  // A subscription that must come about.
  static Owned Subscribe(Dml::PostOffice& office, const std::string& pattern = "",
                         const std::string& options = "", Numbers* snapshot = nullptr) {
    NumberReader reader;
    Owned subscription;
    EXPECT_EQ(Subscribe(office, MakeSpec(pattern, options), reader, subscription).GetCode(), 0U);
    EXPECT_NE(subscription, nullptr);
    if (snapshot != nullptr) *snapshot = reader.numbers;
    return subscription;
  }

  static Common::Error Read(Dml::Subscription& subscription, EventReader& reader) {
    ToldOnce handler;
    const auto job = subscription.Read(reader, handler);
    return handler.Wait();
  }
  // Reads until so many events have come.
  static Events ReadEvents(Dml::Subscription& subscription, std::size_t count) {
    EventReader reader;
    while (reader.events.size() < count) {
      const Common::Error error = Read(subscription, reader);
      EXPECT_EQ(error.GetCode(), 0U) << TestSupport::Utf8(error.ToString());
      if (error.IsFailure()) break;
    }
    return reader.events;
  }
  static void ExpectRefused(Dml::Subscription& subscription, unsigned int code,
                            const std::string& reason) {
    EventReader reader;
    const Common::Error error = Read(subscription, reader);
    EXPECT_EQ(error.GetCode(), code);
    EXPECT_EQ(reader.events, Events());
    const std::string text = TestSupport::Utf8(error.ToString());
    EXPECT_NE(text.find(reason), std::string::npos) << text;
  }

  // objprobe-store, as a process.
  void Tool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "objprobe-store");
    const auto result = TestSupport::RunProgram(OBJPROBE_STORE, arguments);
    EXPECT_EQ(result.status, 0) << result.err;
  }
  void Put(const std::string& object) {
    std::ofstream(folder_ + "/object") << object;
    Tool({"put", path_, folder_ + "/object"});
  }
  void Delete(int number) { Tool({"delete", path_, MakeId(number)}); }
};

// A store with one object, followed.
class StoreFollowed : public StoreSubscribe {
 protected:
  StoreFollowed() {
    StoreNumbered(1);
    office_ = Open();
    subscription_ = Subscribe(*office_);
  }

  std::unique_ptr<Dml::PostOffice> office_;
  Owned subscription_;
};

TEST_F(StoreSubscribe, ChangesOfOtherProgramsComeInOrder) {
  StoreNumbered(2);
  const auto office = Open();
  Numbers snapshot;
  const Owned subscription = Subscribe(*office, "", "", &snapshot);
  EXPECT_EQ(snapshot, (Numbers{1, 2}));
  Put(MakeVersion(3, 1));
  EXPECT_EQ(ReadEvents(*subscription, 1), (Events{"+3v1"}));
  // What happened between two reads comes with the next ones; what changed nothing doesn't.
  Put(MakeVersion(3, 2));
  Put(MakeVersion(3, 2));
  Delete(1);
  std::ofstream(folder_ + "/several")
      << ".Array()" + MakeVersion(4, 1) + MakeVersion(3, 3) + MakeVersion(4, 2) + ".End()";
  Tool({"import", path_, folder_ + "/several"});
  Put(MakeVersion(1, 7));
  EXPECT_EQ(ReadEvents(*subscription, 6), (Events{"~3v2", "-1", "+4v1", "~3v3", "~4v2", "+1v7"}));
}

TEST_F(StoreFollowed, ReadWaitsForAChange) {
  BegunRead read(*subscription_);
  ASSERT_NE(read.job, nullptr);
  // A second one is refused and disturbs nothing.
  BegunRead refused(*subscription_);
  EXPECT_EQ(refused.job, nullptr);
  EXPECT_EQ(refused.Wait(), 0xFC000CU);
  EXPECT_FALSE(read.handler.IsTold());
  // A change that is not the view's doesn't end it.
  const Owned other = Subscribe(*office_, ".Composite().Trait(\"Is\").String(\"No\").End().End()");
  BegunRead cancelled(*other);
  Put(MakeVersion(2, 1));
  EXPECT_EQ(read.Wait(), 0U);
  EXPECT_EQ(read.reader.events, (Events{"+2v1"}));
  EXPECT_EQ(refused.reader.events, Events());
  cancelled.job->Cancel();
  EXPECT_EQ(cancelled.Wait(), Async::kCanceledCode);
  EXPECT_EQ(cancelled.reader.events, Events());
  // The job of a read that has ended is no concern of the next one.
  BegunRead next(*other);
  cancelled.job->Cancel();
  EXPECT_FALSE(next.handler.IsTold());
  next.job->Cancel();
}

// Each change is a transaction; one without a version is a deletion.
struct SmallChange {
  int number;
  unsigned int version;
  const char* type = "A";
};

TEST_F(StoreSubscribe, OnlyTheViewsObjectsAreSeen) {
  const struct {
    const char* pattern;
    const char* options;
    std::vector<SmallChange> before;
    Numbers snapshot;
    std::vector<SmallChange> changes;
    Events events;
  } cases[] = {
      {".Composite().Trait(\"Is\").String(\"A\").End().End()",
       "",
       {{1, 1}, {2, 1, "B"}},
       {1},
       {{2, 2, "B"}, {2, 3}, {2, 4}, {1, 5, "B"}, {1, 6, "B"}, {1, 0}, {2, 0}, {1, 7}},
       {"+2v3", "~2v4", "-1", "-2", "+1v7"}},
      // At most two objects are in the view; a third one finds room when another one has gone.
      {"",
       ".Composite().Property(\"LimitOptions\").DWord(2).End().End()",
       {{1, 1}, {2, 1}, {3, 1}},
       {1, 2},
       {{3, 2}, {4, 1}, {2, 2}, {4, 0}, {1, 0}, {5, 1}, {3, 3}, {2, 0}, {3, 4}, {3, 5}},
       {"~2v2", "-1", "+5v1", "-2", "+3v4", "~3v5"}}};
  for (const auto& each : cases) {
    std::filesystem::remove(path_);
    const auto change = [this](const std::vector<SmallChange>& changes) {
      for (const auto& [number, version, type] : changes) {
        if (version == 0) {
          Delete(number);
        } else {
          Store({MakeVersion(number, version, type)});
        }
      }
    };
    change(each.before);
    const auto office = Open();
    Numbers snapshot;
    const Owned subscription = Subscribe(*office, each.pattern, each.options, &snapshot);
    EXPECT_EQ(snapshot, each.snapshot);
    change(each.changes);
    EXPECT_EQ(ReadEvents(*subscription, each.events.size()), each.events);
  }
}

TEST_F(StoreSubscribe, FailuresToSubscribe) {
  StoreNumbered(1);
  const auto office = Open();
  NumberReader reader;
  Owned subscription;
  EXPECT_TRUE(
      Subscribe(*office, MakeSpec("", ".Array().End()"), reader, subscription).HoldsCode(0xFA000A));
  const auto unknown = MakeSpec(".Composite().Trait(\"Unknown\").Nil().End().End()");
  EXPECT_TRUE(Subscribe(*office, unknown, reader, subscription).HoldsCode(0xFA000E));
  std::filesystem::remove(path_);
  EXPECT_EQ(Subscribe(*office, {}, reader, subscription).GetCode(), 0x40011U);
  EXPECT_EQ(subscription, nullptr);
}

// One that the matching meets later ends the read that meets it, and every later one.
TEST_F(StoreSubscribe, RaisingPatternEndsTheRead) {
  Store({MakeVersion(1, 1, "A")});
  const auto office = Open();
  const Owned subscription = Subscribe(
      *office, ".Composite().Property(\"W\").DWord(1).Trait(\"Unknown\").Nil().End().End().End()");
  const Owned other = Subscribe(*office);
  Put(MakeObject(2, "A", ".Property(\"W\").DWord(1).End()"));
  for (int i = 0; i < 2; ++i) {
    EventReader reader;
    EXPECT_TRUE(Read(*subscription, reader).HoldsCode(0xFA000E));
    EXPECT_EQ(reader.events, Events());
  }
  EXPECT_EQ(ReadEvents(*other, 1), (Events{"+2"}));
}

TEST_F(StoreFollowed, FailuresOfReadersLoseNothing) {
  Store({MakeVersion(2, 1), MakeVersion(3, 1), MakeVersion(4, 1)});
  EventReader raising([](const std::string& event) {
    if (event == "+2v1") throw Common::Error(0x77, u"No.", Common::LineTag());
    if (event == "+3v1") throw std::runtime_error("broken");
  });
  const TestSupport::TraceRecorder traces;
  EXPECT_EQ(Read(*subscription_, raising).GetCode(), 0xF90007U);
  EXPECT_EQ(raising.events, (Events{"+2v1", "+3v1"}));
  EXPECT_EQ(traces.Codes(), "1 fc 1\n");
  // The events behind the one that broke off the read.
  EXPECT_EQ(ReadEvents(*subscription_, 1), (Events{"+4v1"}));
}

TEST_F(StoreFollowed, ObjectsThatCanNotBeDecodedCountAsAbsent) {
  Store({MakeVersion(2, 1), MakeVersion(3, 1), MakeVersion(4, 1)});
  Execute(path_, "UPDATE objects SET data = x'45' WHERE seq = 3");
  EXPECT_EQ(ReadEvents(*subscription_, 2), (Events{"+2v1", "+4v1"}));
  Store({MakeVersion(3, 2)});
  EXPECT_EQ(ReadEvents(*subscription_, 1), (Events{"+3v2"}));
}

// Creates objects from 2 on in one transaction, then updates them all in the same.
Events StoreTwice(const std::string& path, int count) {
  Events expected;
  SqliteStoreWriter writer(path);
  writer.Begin();
  for (const unsigned int version : {1U, 2U}) {
    for (int i = 2; i < count + 2; ++i) {
      writer.Put(*Parse(MakeVersion(i, version)));
      expected.push_back(MakeEvent("+~"[version - 1], i, version == 1 ? "v1" : "v2"));
    }
  }
  writer.Commit();
  return expected;
}

// More than is read of the log at once, in number and in size, in one transaction, larger than the
// log, and in many.
TEST_F(StoreFollowed, LargeAndManyChanges) {
  Events expected = StoreTwice(path_, static_cast<int>(SqliteStoreWriter::kMaxChanges) / 2 + 501);
  EXPECT_EQ(ReadEvents(*subscription_, expected.size()), expected);
  expected.clear();
  {
    SqliteStoreWriter writer(path_);
    const std::string large(ChangeFollower::kBatchBytes / 4, 'x');  // half of it, in UTF-16
    for (unsigned int version = 3; version < 9; ++version) {
      const std::string text = std::to_string(version);
      writer.Begin();
      writer.Put(*Parse(MakeObject(2, "Thing",
                                   ".Property(\"V\").DWord(" + text +
                                       ").End().Property(\"Text\").String(\"" + large + text +
                                       "\").End()")));
      writer.Commit();
      expected.push_back(MakeEvent('~', 2, "v" + text));
    }
  }
  EXPECT_EQ(ReadEvents(*subscription_, expected.size()), expected);
}

// Counts the steps of SQLite's machine in the connections that are opened while this lives.
class StepCounter : public Common::NonCopyable {
 public:
  StepCounter() {
    steps = 0;
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(&Watch));
  }
  ~StepCounter() { sqlite3_reset_auto_extension(); }

  static inline long long steps = 0;

 private:
  static int Watch(sqlite3* database, const char**, const void*) {
    return sqlite3_trace_v2(database, SQLITE_TRACE_PROFILE, &Add, nullptr);
  }
  static int Add(unsigned int, void*, void* statement, void*) {
    steps +=
        sqlite3_stmt_status(static_cast<sqlite3_stmt*>(statement), SQLITE_STMTSTATUS_VM_STEP, 1);
    return 0;
  }
};

TEST_F(StoreSubscribe, ABatchCostsTheSameWhateverComesBehindIt) {
  const int batch = static_cast<int>(ChangeFollower::kBatchChanges);
  const auto count_steps = [&](int objects) {
    const std::string path = folder_ + "/" + std::to_string(objects);
    SqliteStoreWriter::Create(path);
    StoreTwice(path, objects);
    const SqliteStore store(path);
    const std::atomic<bool> stop{false};
    const StepCounter counter;
    const auto log = store.ReadChanges(stop);
    log->Seek({});
    StoredChange change;
    for (int i = 0; i < batch; ++i) EXPECT_TRUE(log->Next(change));
    log->Seek({});  // ends the statements
    return StepCounter::steps;
  };
  const long long few = count_steps(batch);
  EXPECT_GT(few, batch);
  EXPECT_LT(count_steps(4 * batch), few + few / 10);
}

// What the writers of the next tests do. Versions of an object are counted without a gap.
bool ChangeObjects(const std::string& path, int first, int rounds) {
  std::mt19937 random(static_cast<unsigned int>(first));
  std::map<int, unsigned int> versions;
  std::set<int> present;
  std::unique_ptr<SqliteStoreWriter> writer;
  for (int round = 0; round < rounds; ++round) {
    if (writer == nullptr || random() % 4 == 0) {
      writer.reset();
      writer = std::make_unique<SqliteStoreWriter>(path);
    }
    writer->Begin();
    for (unsigned int i = random() % 4; i < 4; ++i) {
      const int number = first + static_cast<int>(random() % 6);
      if (present.count(number) != 0 && random() % 4 == 0) {
        Common::Guid id;
        id.SetFirst(static_cast<std::uint32_t>(number));
        if (!writer->Delete(id)) return false;
        present.erase(number);
      } else {
        writer->Put(*Parse(MakeVersion(number, ++versions[number])));
        present.insert(number);
      }
    }
    writer->Commit();
    if (random() % 8 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The processes are forked while there is no other thread.
class StoreWriters : public StoreSubscribe {
 protected:
  static constexpr int kLastObject = 0x7000;

  StoreWriters() { StoreNumbered(1); }
  // Processes that all begin at Go.
  void Start(int count, int rounds) {
    for (int i = 0; i < count; ++i) {
      writers_.push_back(std::make_unique<ChildProcess>([this, i, rounds] {
        while (!std::filesystem::exists(folder_ + "/go")) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return ChangeObjects(path_, 0x100 * (i + 1), rounds);
      }));
    }
  }
  void Go() { std::ofstream(folder_ + "/go").close(); }
  bool IsRunning() {
    return std::any_of(writers_.begin(), writers_.end(),
                       [](const auto& writer) { return writer->IsRunning(); });
  }
  // Waits for the writers and adds the object behind which nothing comes.
  void Finish() {
    for (const auto& writer : writers_) EXPECT_EQ(writer->Wait(), 0);
    Store({MakeVersion(kLastObject, 1)});
  }
  static std::string GetLastEvent() { return MakeEvent('+', kLastObject, "v1"); }

  // What a reader saw fits what the log says and what the store holds. `state` is the snapshot:
  // the versions by object.
  void ExpectExact(std::map<std::string, std::string> state, const Events& events) {
    Events logged;
    std::istringstream rows(Query(path_, "SELECT kind, hex(id) FROM changes ORDER BY number"));
    for (std::string row; std::getline(rows, row);) {
      // "0|34120000...": the first group lies in little-endian order.
      const std::string number =
          std::to_string(std::stoul(row.substr(4, 2) + row.substr(2, 2), nullptr, 16));
      logged.push_back(std::string(1, "+~-"[row[0] - '0']).append(number));
    }
    ASSERT_LE(events.size(), logged.size());
    std::map<std::string, unsigned long> versions;  // also of those that are gone
    for (const auto& [number, version] : state) {
      if (!version.empty()) versions[number] = std::stoul(version.substr(1));
    }
    for (std::size_t i = 0; i < events.size(); ++i) {
      const std::string& event = events[i];
      const std::size_t end = event.find('v');
      ASSERT_EQ(event.substr(0, end), logged[logged.size() - events.size() + i]) << i;
      const std::string number = event.substr(1, end - 1);
      ASSERT_EQ(state.count(number), event[0] == '+' ? 0U : 1U) << event;
      if (event[0] == '-') {
        state.erase(number);
        continue;
      }
      const unsigned long version = std::stoul(event.substr(end + 1));
      if (const auto known = versions.find(number); known != versions.end()) {
        ASSERT_EQ(version, known->second + 1) << event;
      }
      versions[number] = version;
      state[number] = event.substr(end);
    }
    VersionReader reader;
    EXPECT_EQ(Report(*Open(), {}, reader).GetCode(), 0U);
    EXPECT_EQ(state, reader.versions);
  }

  std::vector<std::unique_ptr<ChildProcess>> writers_;
};

// Readers that subscribe in the middle, while others open, change and close the store.
TEST_F(StoreWriters, NothingIsLostOrDoubledFromTheSnapshotOn) {
  Start(3, 150);
  const auto office = Open();
  struct Follower {
    VersionReader snapshot;
    Owned subscription;
    EventReader reader;
    std::thread thread;
    Common::Error failure;
  };
  std::vector<std::unique_ptr<Follower>> followers;
  Go();
  while (followers.size() < 2 || (followers.size() < 12 && IsRunning())) {
    followers.push_back(std::make_unique<Follower>());
    Follower& self = *followers.back();
    self.thread = std::thread([&] {
      self.failure = Subscribe(*office, {}, self.snapshot, self.subscription);
      while (!self.failure.IsFailure() &&
             (self.reader.events.empty() || self.reader.events.back() != GetLastEvent())) {
        self.failure = Read(*self.subscription, self.reader);
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  }
  Finish();
  for (const auto& follower : followers) {
    follower->thread.join();
    EXPECT_EQ(follower->failure.GetCode(), 0U) << TestSupport::Utf8(follower->failure.ToString());
    ExpectExact(follower->snapshot.versions, follower->reader.events);
  }
}

// The steps of a delivery that comes between reads which were cancelled, and of the threads beside
// it, one by one.
TEST(FollowedView, ADeliveryThatOutlastsItsReadLosesNothing) {
  const auto make = [](unsigned int version) {
    return Dml::ViewManagement::ViewUpdate{
        Dml::ViewManagement::kUpdateCreated, Por::SharedUnit(Parse(MakeVersion(1, version))), {}};
  };
  FollowedView view(ViewFilter(nullptr, std::nullopt), {});
  EventReader reader([&](const std::string& event) {
    if (event == "+1v2") throw std::runtime_error("broken");
  });
  EXPECT_FALSE(view.PrepareDelivery());
  ToldOnce first;
  const auto number = view.Begin(reader, first);
  ASSERT_TRUE(number);
  EXPECT_TRUE(view.NeedsLook());
  EXPECT_FALSE(view.PrepareDelivery());
  view.SetUpdates({make(1), make(2), make(3)});
  EXPECT_FALSE(view.NeedsLook());
  EXPECT_TRUE(view.PrepareDelivery());
  view.End(*number, Async::canceled_error.Get());
  EXPECT_EQ(first.Wait().GetCode(), Async::kCanceledCode);
  // The delivery takes the next read; there is no second one.
  ToldOnce second;
  ASSERT_TRUE(view.Begin(reader, second));
  EXPECT_FALSE(view.NeedsLook());
  EXPECT_FALSE(view.PrepareDelivery());
  view.Deliver();
  EXPECT_EQ(second.Wait().GetCode(), 0xF90007U);
  EXPECT_EQ(reader.events, (Events{"+1v1", "+1v2"}));
  // What was left over is the next read's. A delivery that misses all reads ends.
  ToldOnce third;
  ASSERT_TRUE(view.Begin(reader, third));
  EXPECT_TRUE(view.PrepareDelivery());
  view.End(Async::canceled_error.Get());
  view.Deliver();
  ToldOnce fourth;
  ASSERT_TRUE(view.Begin(reader, fourth));
  EXPECT_FALSE(view.NeedsLook());
  EXPECT_TRUE(view.PrepareDelivery());
  view.DropDelivery();
  EXPECT_TRUE(view.PrepareDelivery());
  view.Deliver();
  EXPECT_EQ(fourth.Wait().GetCode(), 0U);
  EXPECT_EQ(reader.events, (Events{"+1v1", "+1v2", "+1v3"}));
}

TEST_F(StoreFollowed, AHandlerThatRaisesIsTraced) {
  struct Raising final : Async::ActionHandler {
    void Completed(Common::Error) override { throw std::bad_alloc(); }
  } raising;
  const TestSupport::TraceRecorder traces;
  EventReader reader;
  subscription_->Read(reader, raising)->Cancel();
  EXPECT_EQ(traces.Codes(), "4 0 fff2\n");
  Put(MakeVersion(2, 1));
  EXPECT_EQ(ReadEvents(*subscription_, 1), (Events{"+2v1"}));
}

// Reader and writer take turns in all ways: a reader that takes its time is still in the middle
// when the next change comes.
TEST_F(StoreWriters, CancelLosesNothing) {
  Start(2, 150);
  const auto office = Open();
  VersionReader snapshot;
  Owned subscription;
  ASSERT_EQ(Subscribe(*office, {}, snapshot, subscription).GetCode(), 0U);
  EventReader reader(
      [](const std::string&) { std::this_thread::sleep_for(std::chrono::microseconds(300)); });
  Go();
  std::thread finishing([this] { Finish(); });
  int cancelled = 0;
  std::minstd_rand random(1);
  while (reader.events.empty() || reader.events.back() != GetLastEvent()) {
    ToldOnce handler;
    const auto job = subscription->Read(reader, handler);
    ASSERT_NE(job, nullptr);
    std::thread canceling([&job, pause = std::chrono::microseconds(random() % 3000)] {
      std::this_thread::sleep_for(pause);
      job->Cancel();
      job->Cancel();
    });
    const Common::Error result = handler.Wait();
    canceling.join();
    if (result.GetCode() == Async::kCanceledCode) ++cancelled;
    ASSERT_TRUE(!result.IsFailure() || result.GetCode() == Async::kCanceledCode);
  }
  finishing.join();
  EXPECT_GT(cancelled, 0);
  ExpectExact(snapshot.versions, reader.events);
}

// It leaves a log behind that nobody has open, with a part that was never committed.
TEST_F(StoreWriters, AWriterThatDiesIsFollowed) {
  writers_.push_back(std::make_unique<ChildProcess>([this]() -> bool {
    SqliteStoreWriter writer(path_);
    while (!std::filesystem::exists(folder_ + "/go")) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    writer.Begin();
    for (int i = 2; i < 1000; ++i) writer.Put(*Parse(MakeVersion(i, 1)));
    writer.Commit();
    writer.Begin();
    writer.Put(*Parse(MakeVersion(2, 2)));
    return ::raise(SIGKILL) == 0;
  }));
  const auto office = Open();
  const Owned subscription = Subscribe(*office);
  Go();
  EXPECT_EQ(ReadEvents(*subscription, 998).back(), "+999v1");
  EXPECT_EQ(writers_[0]->Wait(), -SIGKILL);
  BegunRead read(*subscription);
  Put(MakeVersion(2, 3));
  EXPECT_EQ(read.Wait(), 0U);
  EXPECT_EQ(read.reader.events, (Events{"~2v3"}));
}

// The index that a reader has mapped can't be written by its process.
TEST_F(StoreWriters, AWriterWaitsForReadersOfItsOwnProcess) {
  ChildProcess keeping([this]() -> bool {
    SqliteStoreWriter writer(path_);
    writer.Begin();
    writer.Put(*Parse(MakeVersion(2, 1)));
    writer.Commit();
    Go();
    for (;;) ::pause();
  });
  while (!std::filesystem::exists(folder_ + "/go") && keeping.IsRunning()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const SqliteStore store(path_);
  const std::atomic<bool> stop{false};
  auto reading = store.Select({}, stop);
  SqliteStoreWriter writer(path_, 50);
  EXPECT_EQ(Catch([&] { writer.Begin(); }).GetCode(), 0x4000CU);
  reading.reset();
  writer.Begin();
  writer.Put(*Parse(MakeVersion(3, 1)));
  writer.Commit();
  EXPECT_EQ(store.ReadChanges(stop)->GetLast(), 3);
}

// A reader never keeps the last writer from moving the log into the store: but for the moment of a
// look, it holds nothing.
TEST_F(StoreFollowed, AWaitingReadHoldsNothingOpen) {
  bool is_clean = false;
  for (unsigned int i = 2; i < 50 && !is_clean; ++i) {
    BegunRead read(*subscription_);
    Put(MakeVersion(1, i));
    is_clean = ListFolder() == std::set<std::string>{"object", "objects.db"};
    EXPECT_EQ(read.Wait(), 0U);
  }
  EXPECT_TRUE(is_clean);
}

TEST_F(StoreSubscribe, AReaderThatFellBehindIsTold) {
  StoreNumbered(3);
  const auto office = Open();
  const Owned subscription = Subscribe(*office);
  const Owned in_time = Subscribe(*office);
  const auto change = [this](int first, int count) {
    std::vector<std::string> objects;
    for (int i = first; i < first + count; ++i) objects.push_back(MakeVersion(i, 1));
    Store(objects);
  };
  // The log just reaches back to the next change of those who have seen three.
  const int kept = static_cast<int>(SqliteStoreWriter::kMaxChanges);
  change(10, kept);
  const Events first = ReadEvents(*in_time, 1);
  EXPECT_EQ(first.front(), "+10v1");
  change(10 + kept, 1);
  for (int i = 0; i < 2; ++i) {
    ExpectRefused(*subscription, 0x40005,
                  "it waits for change 4, and the log begins with change 5");
    ExpectRefused(*subscription, 0x40005, path_);
  }
  const std::size_t rest = static_cast<std::size_t>(kept) + 1 - first.size();
  EXPECT_EQ(ReadEvents(*in_time, rest).back(), MakeEvent('+', 10 + kept, "v1"));
}

TEST_F(StoreSubscribe, ALogThatContradictsItselfIsTold) {
  const std::pair<const char*, const char*> damages[] = {
      {"DELETE FROM changes WHERE number = 3", "at change 3"},
      {"UPDATE changes SET kind = 7 WHERE number = 3", "at change 3"},
      {"UPDATE changes SET id = x'00' WHERE number = 3", "at change 3"},
      {"UPDATE changes SET total = 99 WHERE number = 3", "at change 3"},
      {"UPDATE changes SET previous = previous + 1 WHERE number = 3", "at change 3"},
      {"UPDATE changes SET kind = 0 WHERE number = 4", "at change 3"},
      {"DELETE FROM objects WHERE seq = 3", "at change 4"}};
  for (const auto& [damage, place] : damages) {
    std::filesystem::remove(path_);
    StoreNumbered(1);
    const auto office = Open();
    const Owned subscription = Subscribe(*office);
    Store({MakeVersion(2, 1), MakeVersion(3, 1), MakeVersion(3, 2)});
    Execute(path_, damage);
    EXPECT_EQ(ReadEvents(*subscription, 1).front(), "+2v1") << damage;
    EventReader reader;
    Common::Error error;
    while (!error.IsFailure()) error = Read(*subscription, reader);
    EXPECT_EQ(error.GetCode(), 0x4000DU) << damage;
    EXPECT_NE(TestSupport::Utf8(error.ToString()).find(place), std::string::npos)
        << damage << TestSupport::Utf8(error.ToString());
  }
}

// Stores that take the place of one with four changes, under its path.
class StoreReplaced : public StoreSubscribe {
 protected:
  StoreReplaced() {
    StoreNumbered(3);
    std::filesystem::copy_file(path_, older_);
    Store({MakeVersion(4, 1)});
  }
  // The same file gets another content.
  void Overwrite(const std::string& from) {
    std::ifstream source(from, std::ios::binary);
    std::ofstream(path_, std::ios::binary) << source.rdbuf();
  }
  // A subscription meets what `replace` does.
  void ExpectTold(unsigned int code, const std::string& reason,
                  const std::function<void()>& replace) {
    const auto office = Open();
    const Owned subscription = Subscribe(*office);
    replace();
    ExpectRefused(*subscription, code, reason);
  }

  const std::string older_ = folder_ + "/older";
  const std::string other_ = folder_ + "/other";
};

TEST_F(StoreReplaced, AnotherFileIsTold) {
  std::filesystem::copy_file(path_, other_);
  const auto office = Open();
  const Owned subscription = Subscribe(*office);
  // Even with the same content.
  BegunRead read(*subscription);
  std::filesystem::rename(other_, path_);
  EXPECT_EQ(read.Wait(), 0x40005U);
  ExpectRefused(*subscription, 0x40005, "Another file has taken the store's place.");
}

TEST_F(StoreReplaced, AnotherContentIsTold) {
  ExpectTold(0x40005, "The store has gone back behind change 4.", [&] { Overwrite(older_); });
  // One that has only grown, as this one has, to the same number or a later one: a copy of that
  // which is older, or one that has begun anew.
  for (const bool is_copy : {true, false}) {
    for (const int count : {4, 6, 9}) {
      std::filesystem::copy_file(older_, path_, std::filesystem::copy_options::overwrite_existing);
      Store({MakeVersion(4, 1)});
      ExpectTold(0x40005, "Another store has taken the store's place.", [&] {
        if (!is_copy) {
          std::filesystem::remove(other_);
          SqliteStoreWriter::Create(other_);
        }
        Overwrite(is_copy ? older_ : other_);
        for (int i = is_copy ? 4 : 1; i <= count; ++i) Store({MakeVersion(i + 10, 1)});
      });
    }
  }
  // One whose numbers are the last there are.
  ExpectTold(0x40005, "the log begins with change 9223372036854775808", [&] {
    Execute(path_, "DELETE FROM changes; UPDATE sqlite_sequence SET seq = 9223372036854775807");
  });
}

TEST_F(StoreReplaced, NoStoreAnyMoreIsTold) {
  const auto office = Open();
  const Owned subscription = Subscribe(*office);
  std::filesystem::resize_file(path_, 20000);
  ExpectRefused(*subscription, 0x4000D, path_);
  BegunRead read(*subscription);
  std::filesystem::remove(path_);
  const std::uint32_t code = read.Wait();
  EXPECT_TRUE(code == 0x40011U || code == 0x4000DU) << code;
  ExpectRefused(*subscription, 0x40011, path_);
}

// A subscription on a store that waits for locks as long as it is told.
class FollowedStore {
 public:
  FollowedStore(const std::string& path, unsigned int lock_wait_milliseconds)
      : store(std::make_shared<SqliteStore>(path, lock_wait_milliseconds)),
        follower(std::make_shared<ChangeFollower>(store, *Por::GetStaticUnitFactory())) {
    subscription = Subscribe();
  }
  ~FollowedStore() { follower->Stop(MakeClosingError()); }

  std::unique_ptr<Dml::Subscription> Subscribe() {
    std::unique_ptr<Dml::Subscription> result;
    ToldOnce handler;
    ReportThreads threads;
    threads.Start(std::make_shared<SubscribeJob>(follower, store, Dml::ViewSpec(), std::nullopt,
                                                 nullptr, result, handler,
                                                 *Por::GetStaticUnitFactory()));
    EXPECT_EQ(handler.Wait().GetCode(), 0U);
    return result;
  }

  const std::shared_ptr<SqliteStore> store;
  const std::shared_ptr<ChangeFollower> follower;
  std::unique_ptr<Dml::Subscription> subscription;
};

// Longer than a look does: the read goes on, and one trace tells of it.
TEST_F(StoreSubscribe, ALockIsWaitedFor) {
  StoreNumbered(1);
  FollowedStore followed(path_, 20);
  auto holder = std::make_unique<LockHolder>(path_);
  std::unique_ptr<BegunRead> read;
  {
    const TestSupport::TraceRecorder traces;
    read = std::make_unique<BegunRead>(*followed.subscription);
    for (int i = 0; i < 6000 && traces.All().empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(traces.Codes(), "1 4 17\n");
  }
  EXPECT_FALSE(read->handler.IsTold());
  holder.reset();
  Put(MakeVersion(2, 1));
  EXPECT_EQ(read->Wait(), 0U);
  EXPECT_EQ(read->reader.events, (Events{"+2v1"}));
}

// The other read's look lasts as long as the lock.
TEST_F(StoreSubscribe, WhatAReadLeftBehindIsNotHeldUpByALock) {
  StoreNumbered(1);
  FollowedStore followed(path_, 600000);
  const Owned other = followed.Subscribe();
  Store({MakeVersion(2, 1), MakeVersion(3, 1)});
  EventReader raising([](const std::string&) { throw std::runtime_error("broken"); });
  EXPECT_EQ(Read(*followed.subscription, raising).GetCode(), 0xF90007U);
  const LockHolder holder(path_);
  BegunRead waiting(*other);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(ReadEvents(*followed.subscription, 1), (Events{"+3v1"}));
  EXPECT_FALSE(waiting.handler.IsTold());
  waiting.job->Cancel();
}

// The locks outlast the test: nothing may wait for them.
TEST_F(StoreSubscribe, EndsWhileTheStoreIsLocked) {
  StoreNumbered(1);
  auto followed = std::make_unique<FollowedStore>(path_, 600000);
  const LockHolder holder(path_);
  BegunRead cancelled(*followed->subscription);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  cancelled.job->Cancel();
  EXPECT_EQ(cancelled.Wait(), Async::kCanceledCode);
  BegunRead closed(*followed->subscription);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  followed.reset();
  EXPECT_EQ(closed.Wait(), 0xFC000BU);
}

// Runs a step as it is told the end.
class ActingHandler final : public Async::ActionHandler {
 public:
  explicit ActingHandler(std::function<void()> act) : act_(std::move(act)) {}
  void Completed(Common::Error result) override {
    EXPECT_EQ(result.GetCode(), 0U);
    act_();
    told.Set();
  }
  Common::Event told{true, false};

 private:
  const std::function<void()> act_;
};

TEST_F(StoreFollowed, MayBeDestroyedWhileItIsRead) {
  {
    ActingHandler handler([&] { subscription_.reset(); });
    EventReader reader;
    const auto job = subscription_->Read(reader, handler);
    Put(MakeVersion(2, 1));
    EXPECT_TRUE(handler.told.Wait(60000));
    EXPECT_EQ(reader.events, (Events{"+2v1"}));
  }
  {
    // The batch that is being read comes to its end.
    subscription_ = Subscribe(*office_);
    Store({MakeVersion(3, 1), MakeVersion(4, 1)});
    BegunRead read(*subscription_, [&](const std::string&) { subscription_.reset(); });
    EXPECT_EQ(read.Wait(), 0U);
    EXPECT_EQ(read.reader.events, (Events{"+3v1", "+4v1"}));
  }
  // While it waits.
  subscription_ = Subscribe(*office_);
  BegunRead read(*subscription_);
  subscription_.reset();
  EXPECT_TRUE(read.handler.IsTold());
  EXPECT_EQ(read.Wait(), 0xFC000BU);
  read.job->Cancel();
}

TEST_F(StoreFollowed, ThePostOfficeMayGoFirst) {
  const Owned idle = Subscribe(*office_);
  BegunRead read(*subscription_);
  office_.reset();
  EXPECT_TRUE(read.handler.IsTold());
  EXPECT_EQ(read.Wait(), 0xFC000BU);
  read.job->Cancel();
  for (Dml::Subscription* each : {subscription_.get(), idle.get()}) {
    BegunRead late(*each);
    EXPECT_EQ(late.job, nullptr);
    EXPECT_EQ(late.Wait(), 0xFC0017U);
  }
}

TEST_F(StoreFollowed, ThePostOfficeMayGoInAHandler) {
  const Owned other = Subscribe(*office_, ".Array().End()");
  BegunRead closed(*other);
  ActingHandler handler([&] {
    office_.reset();
    subscription_.reset();
  });
  EventReader reader;
  const auto job = subscription_->Read(reader, handler);
  Put(MakeVersion(2, 1));
  EXPECT_TRUE(handler.told.Wait(60000));
  EXPECT_EQ(reader.events, (Events{"+2v1"}));
  EXPECT_EQ(closed.Wait(), 0xFC000BU);
}

// Each of these readers waits in the middle until the others have got there: more than there are
// processors.
TEST_F(StoreFollowed, AReaderThatBlocksHoldsNoOtherUp) {
  constexpr int kReaders = 6;
  std::atomic<int> inside{0};
  Common::Event all_inside(true, false);
  std::vector<Owned> subscriptions;
  std::vector<std::unique_ptr<BegunRead>> reads;
  for (int i = 0; i < kReaders; ++i) {
    subscriptions.push_back(Subscribe(*office_));
    reads.push_back(std::make_unique<BegunRead>(*subscriptions.back(), [&](const std::string&) {
      if (++inside == kReaders) all_inside.Set();
      EXPECT_TRUE(all_inside.Wait(60000));
    }));
  }
  Put(MakeVersion(2, 1));
  for (const auto& read : reads) {
    EXPECT_EQ(read->Wait(), 0U);
    EXPECT_EQ(read->reader.events, (Events{"+2v1"}));
  }
}

// The whole way of a listen: the snapshot as created objects, then what the processes change.
TEST_F(StoreSubscribe, IsFollowedByACycle) {
  StoreNumbered(2);
  const auto office = Open();
  Owned subscription;
  {
    ToldOnce subscribed;
    const auto job = Dml::SubscribeWithoutReport(
        Core::EntryPoint(), *office, *Por::GetStaticUnitFactory(), {}, subscription, subscribed);
    ASSERT_EQ(subscribed.Wait().GetCode(), 0U);
  }
  Common::Event came(false, false);
  std::atomic<std::size_t> count{0};
  EventReader reader([&](const std::string&) {
    ++count;
    came.Set();
  });
  const auto wait_for = [&](std::size_t expected) {
    while (count < expected) ASSERT_TRUE(came.Wait(60000));
  };
  Async::WaitingHandler ended(true);
  const auto read = [&](Async::ActionHandler& handler) {
    return subscription->Read(reader, handler);
  };
  const auto cycle = Async::RunCyclic(Async::MakeAction(read), ended);
  wait_for(2);
  Put(MakeVersion(3, 1));
  wait_for(3);
  Delete(1);
  wait_for(4);
  cycle->Cancel();
  EXPECT_TRUE(ended.Wait(nullptr).HoldsCode(Async::kCanceledCode));
  EXPECT_EQ(reader.events, (Events{"+1", "+2", "+3v1", "-1"}));
}

}  // namespace

}  // namespace Platform::Store
