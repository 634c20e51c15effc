#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "core/common/error_record.h"
#include "platform/store/sqlite_store.h"
#include "tests/platform/store/store_fixture.h"

namespace Platform::Store {

namespace {

using Numbers = std::vector<unsigned int>;

std::string GetPathParameter(const Common::Error& error) {
  const Common::ErrorRecord* record = error.GetRecord();
  if (record == nullptr) return "";
  const char* path = record->operations->GetAnsi(record, "path");
  return path != nullptr ? path : "";
}

std::string GetMessages(const Common::Error& error) {
  std::string text;
  for (Common::Error link = error; link.IsFailure(); link = link.GetNextError()) {
    std::string message;
    const Common::String wide = link.GetMessage();
    Common::ToUtf8(message, wide.c_str());
    text += message + "\n";
  }
  return text;
}

void ExpectError(const Common::Error& error, unsigned int code, const std::string& messages) {
  EXPECT_EQ(error.GetCode(), code);
  EXPECT_EQ(GetMessages(error), messages);
}

class StoreFile : public StoreTest {
 protected:
  // Opens and expects a failure with the code, the path and these messages.
  static void ExpectRefused(const std::string& connection, const std::string& path,
                            unsigned int code, const std::string& messages) {
    SCOPED_TRACE(connection);
    const Common::Error error = Catch([&] { OpenAt(connection); });
    ExpectError(error, code, messages);
    EXPECT_EQ(GetPathParameter(error), path);
  }

  // Runs `body` in a process of its own without rights and expects it to return true.
  static void InUnprivilegedProcess(const std::function<bool()>& body) {
    EXPECT_EQ(ChildProcess([&] { return DropRights() && body(); }).Wait(), 0);
  }

  // A process that changes the store and dies in the middle of its transaction, or behind it.
  void DieWriting(int first, int count, bool commit) {
    ChildProcess child([&]() -> bool {
      SqliteStoreWriter writer(path_);
      writer.Begin();
      for (int i = first; i < first + count; ++i) writer.Put(*Parse(MakeObject(i, "Thing")));
      if (commit) writer.Commit();
      return ::raise(SIGKILL) == 0;
    });
    EXPECT_EQ(child.Wait(), -SIGKILL);
  }

  unsigned int CountObjects() {
    return static_cast<unsigned int>(SqliteStore(path_).GetStatistics().objects);
  }
};

TEST_F(StoreFile, ConnectionStrings) {
  StoreNumbered(1);
  EXPECT_NE(OpenAt(path_), nullptr);
  EXPECT_NE(OpenAt("sqlite:" + path_), nullptr);
  const std::string odd = folder_ + "/100% #1?mode=memory&.db";
  SqliteStoreWriter::Create(odd);
  EXPECT_NE(OpenAt(odd), nullptr);
  const std::string missing = "The specified file does not exist.\nNo such file or directory\n";
  ExpectRefused("", "", 0x40011, missing);
  ExpectRefused("sqlite:", "", 0x40011, missing);
  EXPECT_THROW(Dml::CreatePostOffice(ToConnection(path_) + u'\0' + u"x"), Common::Error);
}

// Leads to another store.
class LeadingCustomizer final : public Dml::StoreCustomizer {
 public:
  explicit LeadingCustomizer(const Common::String& target) : target_(target) {}
  std::unique_ptr<Dml::CoreObject> CustomizeStore(
      std::unique_ptr<Dml::CoreObject> object) override {
    EXPECT_NE(object, nullptr);
    ++customized;
    return object;
  }
  std::unique_ptr<Dml::DbConnectionString> ResolveConnectionString() override {
    return std::make_unique<Dml::ResolvedConnectionString>(target_);
  }

  int customized = 0;

 private:
  const Common::String target_;
};

TEST_F(StoreFile, TheCustomizerResolvesTheConnectionString) {
  StoreNumbered(2);
  LeadingCustomizer customizer(ToConnection(path_));
  Dml::CoreDispatcher* dispatcher = nullptr;
  Common::Error error;
  DML_Create(u"elsewhere", &customizer, Por::GetStaticUnitFactory(), &dispatcher, error);
  ASSERT_EQ(error.GetCode(), 0U);
  ASSERT_NE(dispatcher, nullptr);
  EXPECT_EQ(customizer.customized, 1);
  NumberReader reader;
  EXPECT_EQ(Report(*dispatcher->CreatePostOffice(), {}, reader).GetCode(), 0U);
  EXPECT_EQ(reader.numbers, (Numbers{1, 2}));
  DML_Delete(&dispatcher, error);
  EXPECT_EQ(dispatcher, nullptr);
  EXPECT_EQ(error.GetCode(), 0U);
  // Without a customizer, and without a store.
  DML_Create(u"/nowhere", nullptr, Por::GetStaticUnitFactory(), &dispatcher, error);
  EXPECT_EQ(dispatcher, nullptr);
  EXPECT_EQ(error.GetCode(), 0x40011U);
}

TEST_F(StoreFile, BadStoresAreRefused) {
  const std::string open = "Error occurred while opening the file.\n";
  const std::string corrupted = "The file is corrupted.\n";

  ExpectRefused(path_, path_, 0x40011,
                "The specified file does not exist.\nNo such file or directory\n");
  ExpectRefused(folder_, folder_, 0x40007, open + "Is a directory\n");
  const std::string below = folder_ + "/objects.db/x";
  std::ofstream(path_)
      << "This is a text of more than one hundred bytes, so that it might be taken "
         "for the header of something else.";
  ExpectRefused(below, below, 0x40007, open + "Not a directory\n");
  ExpectRefused(path_, path_, 0x4000D, corrupted + "SQLite: file is not a database (26)\n");
  const std::string pipe = folder_ + "/pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  ExpectRefused(pipe, pipe, 0x40007, open + "This is no regular file.\n");
  const std::string empty = folder_ + "/empty";
  std::ofstream(empty).close();
  ExpectRefused(empty, empty, 0x40007, open + "The database is not an object store.\n");
  const std::string foreign = folder_ + "/foreign";
  Execute(foreign, "CREATE TABLE objects(seq INTEGER PRIMARY KEY)");
  ExpectRefused(foreign, foreign, 0x40007, open + "The database is not an object store.\n");
  EXPECT_EQ(ListFolder(), (std::set<std::string>{"empty", "foreign", "objects.db", "pipe"}));
}

TEST_F(StoreFile, OtherVersionsAreRefused) {
  StoreNumbered(1);
  for (const char* version : {"3", "0"}) {
    Execute(path_, std::string("PRAGMA user_version = ") + version);
    const std::string words =
        std::string("The operation is not supported.\nThe store has version ") + version +
        "; this program knows version 2.\n";
    ExpectRefused(path_, path_, 0x4000E, words);
    EXPECT_THROW(SqliteStoreWriter{path_}, Common::Error);
  }
}

TEST_F(StoreFile, AWriterBringsUpTheFirstVersion) {
  StoreNumbered(2);
  Execute(path_,
          "DROP INDEX changes_by_seq;"
          "ALTER TABLE changes DROP COLUMN stamp; ALTER TABLE changes DROP COLUMN previous;"
          "PRAGMA user_version = 1");
  ExpectRefused(path_, path_, 0x4000E,
                "The operation is not supported.\nThe store has version 1; this program knows "
                "version 2. Open it for writing once.\n");
  Store({MakeObject(3, "Thing")});
  EXPECT_EQ(Match(""), (std::vector<unsigned int>{1, 2, 3}));
  EXPECT_EQ(Query(path_, "SELECT number, stamp = 0, previous = 0 FROM changes"),
            "1|1|1\n2|1|1\n3|0|1\n");
  // It is a store like one that was made so.
  const std::string made = folder_ + "/made";
  SqliteStoreWriter::Create(made);
  const std::string indexes = "SELECT name, tbl_name, sql FROM sqlite_master WHERE type = 'index'";
  EXPECT_EQ(Query(path_, indexes), Query(made, indexes));
}

TEST_F(StoreFile, DamagedPagesEndTheReport) {
  StoreNumbered(2000);
  const auto office = Open();
  {
    // All but the schema and the root of the objects.
    const auto size = static_cast<std::streamoff>(std::filesystem::file_size(path_));
    std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(16384 * 2);
    for (std::streamoff i = file.tellp(); i < size; ++i) file.put('\xEE');
  }
  NumberReader reader;
  const Common::Error result = Report(*office, {}, reader);
  EXPECT_EQ(result.GetCode(), 0x4000DU);
  EXPECT_EQ(GetPathParameter(result), path_);
  // The same for a store without its tables.
  const std::string bare = folder_ + "/bare";
  SqliteStoreWriter::Create(bare);
  Execute(bare, "DROP TABLE objects");
  NumberReader none;
  EXPECT_EQ(Report(*OpenAt(bare), {}, none).GetCode(), 0x4000DU);
}

TEST_F(StoreFile, WithoutPermissionIsRefused) {
  StoreNumbered(2);
  ASSERT_EQ(::chmod(folder_.c_str(), 0755), 0);
  ASSERT_EQ(::chmod(path_.c_str(), 0), 0);
  InUnprivilegedProcess([&] {
    ExpectRefused(path_, path_, 0x40014, "Access to the file is denied.\nPermission denied\n");
    return !HasFailure();
  });
  ASSERT_EQ(::chmod(path_.c_str(), 0444), 0);
  InUnprivilegedProcess([&] {
    EXPECT_EQ(Match(""), (Numbers{1, 2}));
    EXPECT_THROW(SqliteStoreWriter{path_}, Common::Error);
    return !HasFailure();
  });
}

TEST_F(StoreFile, ALockIsWaitedForButNotForGood) {
  StoreNumbered(2);
  auto holder = std::make_unique<LockHolder>(path_);
  const auto start = std::chrono::steady_clock::now();
  ExpectError(Catch([&] { SqliteStore(path_, 200); }), 0x40017,
              "Failed to lock the file.\nSQLite: database is locked (5)\n");
  EXPECT_THROW(SqliteStoreWriter(path_, 200).Begin(), Common::Error);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(400));
  EXPECT_LT(waited, std::chrono::seconds(20));
  // In time, it is opened.
  std::thread releasing([&holder] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    holder.reset();
  });
  EXPECT_EQ(Match(""), (Numbers{1, 2}));
  releasing.join();
}

// What lies beside the store, and whether its folder can be written, makes no difference; the
// reader leaves everything as it was.
TEST_F(StoreFile, ReadingChangesNothingInAnyState) {
  const auto read = [this](unsigned int count) {
    for (const bool writable : {true, false}) {
      ASSERT_EQ(::chmod(folder_.c_str(), writable ? 0777 : 0555), 0);
      const auto before = ListFolder();
      const auto changed = std::filesystem::last_write_time(path_);
      InUnprivilegedProcess([&] { return Match("").size() == count; });
      EXPECT_EQ(Match("").size(), count);
      EXPECT_EQ(ListFolder(), before);
      EXPECT_EQ(std::filesystem::last_write_time(path_), changed);
    }
    ASSERT_EQ(::chmod(folder_.c_str(), 0755), 0);
  };
  const std::set<std::string> closed = {"objects.db"};
  const std::set<std::string> open = {"objects.db", "objects.db-shm", "objects.db-wal"};

  StoreNumbered(3);
  EXPECT_EQ(ListFolder(), closed);
  read(3);

  {
    SqliteStoreWriter writer(path_);
    writer.Begin();
    writer.Put(*Parse(MakeObject(4, "Thing")));
    writer.Commit();
    EXPECT_EQ(ListFolder(), open);
    read(4);
    writer.Begin();
    writer.Put(*Parse(MakeObject(5, "Thing")));
    read(4);
  }
  EXPECT_EQ(ListFolder(), closed);
  read(4);

  DieWriting(5, 1, true);
  EXPECT_EQ(ListFolder(), open);
  read(5);
  StoreNumbered(6);
  EXPECT_EQ(ListFolder(), closed);
  read(6);
}

TEST_F(StoreFile, DeathInTheMiddleLeavesTheOldState) {
  StoreNumbered(3);
  // Few objects stay in the writer's memory, many reach its files before the end.
  for (const int count : {10, 3000}) {
    DieWriting(100, count, false);
    EXPECT_EQ(CountObjects(), 3U);
    EXPECT_EQ(Match(""), (Numbers{1, 2, 3}));
  }
  DieWriting(100, 10, true);
  EXPECT_EQ(CountObjects(), 13U);
  Store({MakeObject(4, "Thing")});
  EXPECT_EQ(CountObjects(), 14U);
  EXPECT_EQ(Query(path_, "PRAGMA integrity_check"), "ok\n");
}

TEST_F(StoreFile, ReadersSeeOneStateWhileAWriterGoesOn) {
  constexpr unsigned int kObjects = 300;
  constexpr unsigned int kRounds = 40;
  const auto store_round = [this](unsigned int round) {
    std::vector<std::string> objects;
    for (unsigned int i = 1; i <= kObjects; ++i) {
      objects.push_back(".Composite().Trait(\"PrimaryKey\").Guid(" + MakeId(static_cast<int>(i)) +
                        ").End().Property(\"N\").DWord(" + std::to_string(round) + ").End().End()");
    }
    Store(objects);
  };
  store_round(0);
  // Opens and closes: the log comes, goes, and stays while a reader is there.
  ChildProcess writer([&] {
    for (unsigned int round = 1; round <= kRounds; ++round) store_round(round);
    return true;
  });

  const auto office = Open();
  Numbers seen;
  for (bool running = true; running;) {
    running = writer.IsRunning();
    NumberReader reader;
    const Common::Error result = Report(*office, {}, reader);
    ASSERT_EQ(result.GetCode(), 0U) << GetMessages(result);
    const unsigned int round = reader.numbers.at(0);
    ASSERT_EQ(reader.numbers, Numbers(kObjects, round));
    if (seen.empty() || round != seen.back()) seen.push_back(round);
  }
  EXPECT_EQ(writer.Wait(), 0);
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
  EXPECT_EQ(seen.back(), kRounds);
  EXPECT_GT(seen.size(), 2U);
}

// An index whose header doesn't hold, as readers meet it while a writer makes it.
TEST_F(StoreFile, AnUnfinishedIndexIsWaitedFor) {
  StoreNumbered(2);
  ChildProcess writer([this]() -> bool {
    SqliteStoreWriter open(path_);
    open.Begin();
    open.Put(*Parse(MakeObject(3, "Thing")));
    open.Commit();
    std::ofstream(folder_ + "/ready").close();
    for (;;) ::pause();
  });
  while (!std::filesystem::exists(folder_ + "/ready") && writer.IsRunning()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const auto office = Open();
  const SqliteStore store(path_, 10000);
  const int index = ::open((path_ + "-shm").c_str(), O_RDWR | O_CLOEXEC);
  unsigned char header[96] = {};
  const unsigned char zeros[96] = {};
  ASSERT_EQ(::pread(index, header, sizeof header, 0), 96);
  ASSERT_EQ(::pwrite(index, zeros, sizeof zeros, 0), 96);
  EXPECT_EQ(Catch([&] { SqliteStore(path_, 50); }).GetCode(), 0x40017U);
  EXPECT_EQ(Catch([&] { store.Select({}, std::atomic<bool>(true)); }).GetCode(), 0xF90002U);
  std::thread finishing([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(::pwrite(index, header, sizeof header, 0), 96);
  });
  EXPECT_EQ(store.GetStatistics().objects, 3U);
  finishing.join();
  ::close(index);
}

TEST_F(StoreFile, ALogWithoutItsIndexIsRead) {
  StoreNumbered(2);
  DieWriting(3, 2, true);
  std::filesystem::remove(path_ + "-shm");
  const std::set<std::string> beside = {"objects.db", "objects.db-wal"};
  const SqliteStore store(path_);
  EXPECT_EQ(store.GetStatistics().objects, 4U);
  EXPECT_EQ(Match(""), (Numbers{1, 2, 3, 4}));
  EXPECT_EQ(ListFolder(), beside);
  // A writer comes and goes in the middle; who began before sees nothing of it.
  const std::atomic<bool> stop{false};
  StoredObject object;
  int count = 0;
  {
    const auto early = store.Select({}, stop);
    EXPECT_TRUE(early->Next(object));
    ++count;
    StoreNumbered(9);
    EXPECT_EQ(Match("").size(), 9U);
    while (early->Next(object)) ++count;
  }
  EXPECT_EQ(count, 4);
  StoreNumbered(10);
  EXPECT_EQ(ListFolder(), (std::set<std::string>{"objects.db"}));
  EXPECT_EQ(Match("").size(), 10U);
}

// The writer died behind the 32 bytes of the header, or inside the first frame.
TEST_F(StoreFile, ALogThatHasHardlyBegunIsRead) {
  for (const unsigned int size : {32U, 33U, 1000U, 31U}) {
    std::filesystem::remove(path_);
    StoreNumbered(2);
    DieWriting(3, 2, true);
    std::filesystem::resize_file(path_ + "-wal", size);
    EXPECT_EQ(Match(""), (Numbers{1, 2})) << size;
    std::filesystem::remove(path_ + "-shm");
    EXPECT_EQ(Match(""), (Numbers{1, 2})) << size;
    StoreNumbered(3);
    EXPECT_EQ(Match(""), (Numbers{1, 2, 3})) << size;
  }
}

TEST_F(StoreFile, AStoreCutShortIsRefused) {
  StoreNumbered(20);
  for (const auto& [size, code] : std::initializer_list<std::pair<unsigned int, unsigned int>>{
           {40000, 0x4000D}, {16383, 0x4000D}, {5000, 0x4000D}, {50, 0x40007}}) {
    std::filesystem::resize_file(path_, size);
    const auto read = [this] { SqliteStore(path_).List([](const ObjectSummary&) {}); };
    EXPECT_EQ(Catch(read).GetCode(), code) << size;
  }
}

// A process that dies in a change which the main file has in part, its journal beside it.
void DieWithJournal(const std::string& path, const std::string& change) {
  ChildProcess child([&] {
    sqlite3* database = nullptr;
    sqlite3_open(path.c_str(), &database);
    const std::string sql =
        "PRAGMA page_size = 16384; PRAGMA journal_mode = DELETE;"
        "PRAGMA cache_size = 1; BEGIN IMMEDIATE;" +
        change;
    const int result = sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr);
    if (result == SQLITE_OK) ::raise(SIGKILL);
    return false;
  });
  EXPECT_EQ(child.Wait(), -SIGKILL);
  EXPECT_TRUE(std::filesystem::exists(path + "-journal"));
}

TEST_F(StoreFile, AnInterruptedChangeIsToldAndMendedByAWriter) {
  StoreNumbered(50);
  DieWithJournal(path_, "UPDATE objects SET data = zeroblob(20000)");
  ExpectRefused(path_, path_, 0x4001A,
                "Error occurred while recovering.\nA change of the store was interrupted; open it "
                "for writing once. SQLite: attempt to write a readonly database (776)\n");
  { SqliteStoreWriter writer(path_); }
  EXPECT_EQ(Match("").size(), 50U);
  // A create loses nothing of it, either.
  DieWithJournal(path_, "UPDATE objects SET data = zeroblob(20000)");
  EXPECT_EQ(Catch([&] { SqliteStoreWriter::Create(path_); }).GetCode(), 0x40013U);
  EXPECT_EQ(Match("").size(), 50U);
}

TEST_F(StoreFile, CreateTakesWhatACreateLeftThatDied) {
  const std::string filling =
      "CREATE TABLE objects(data); INSERT INTO objects VALUES(zeroblob(200000));"
      "INSERT INTO objects VALUES(zeroblob(200000))";
  for (const bool cut : {false, true}) {
    DieWithJournal(path_, filling);
    EXPECT_GT(std::filesystem::file_size(path_), 0U);
    if (cut) std::filesystem::resize_file(path_, 0);
    // The journal stands beside the real file, not beside a link to it.
    const std::string link = folder_ + "/link";
    std::filesystem::create_symlink(path_, link);
    SqliteStoreWriter::Create(link);
    std::filesystem::remove(link);
    EXPECT_EQ(Match(""), Numbers());
    EXPECT_EQ(ListFolder(), (std::set<std::string>{"objects.db"}));
    std::filesystem::remove(path_);
  }
  // A journal doesn't make a text a store.
  std::ofstream(path_) << std::string(1000, 'x');
  std::ofstream(path_ + "-journal") << "x";
  EXPECT_EQ(Catch([&] { SqliteStoreWriter::Create(path_); }).GetCode(), 0x40013U);
  EXPECT_EQ(std::filesystem::file_size(path_), 1000U);
}

// One that fails must not take the store of one that succeeded with it.
TEST_F(StoreFile, OfManyCreatesAtOnceOneSucceeds) {
  for (int round = 0; round < 10; ++round) {
    const std::string path = folder_ + "/" + std::to_string(round);
    std::atomic<int> made{0};
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        ++ready;
        while (ready < 4) std::this_thread::yield();
        try {
          SqliteStoreWriter::Create(path);
          ++made;
        } catch (const Common::Error& error) {
          EXPECT_EQ(error.GetCode(), 0x40013U) << GetMessages(error);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(made, 1);
    EXPECT_EQ(SqliteStore(path).GetStatistics().objects, 0U);
  }
}

class StoreChanges : public StoreTest {};

TEST_F(StoreChanges, AreKnownWithWhatWasThereBefore) {
  using Outcome = SqliteStoreWriter::Outcome;
  SqliteStoreWriter::Create(path_);
  {
    SqliteStoreWriter writer(path_);
    writer.Begin();
    EXPECT_EQ(writer.Put(*Parse(MakeObject(1, "A"))), Outcome::kCreated);
    EXPECT_EQ(writer.Put(*Parse(MakeObject(1, "A"))), Outcome::kUnchanged);
    EXPECT_EQ(writer.Put(*Parse(MakeObject(1, "B"))), Outcome::kUpdated);
    Common::Guid id;
    id.SetFirst(1);
    EXPECT_TRUE(writer.Delete(id));
    EXPECT_THROW(writer.Put(*Parse(".Composite().End()")), Common::Error);
    writer.Commit();
    writer.Begin();
    writer.Put(*Parse(MakeObject(2, "A")));
    // Not committed: never was.
  }
  // Bytes, counted by hand: 3 for the root's "U", "C" and "E", 15 for the property N, 19 for the
  // trait Is, 45 for the trait PrimaryKey.
  EXPECT_EQ(Query(path_, "SELECT number, kind, hex(id), total, length(before) FROM changes"),
            "1|0|01000000000000000000000000000000|0|NULL\n"
            "2|1|01000000000000000000000000000000|82|82\n"
            "3|2|01000000000000000000000000000000|164|82\n");
}

TEST_F(StoreChanges, AreBoundedInNumber) {
  SqliteStoreWriter::Create(path_);
  SqliteStoreWriter writer(path_);
  writer.Begin();
  for (int i = 1; i <= SqliteStoreWriter::kMaxChanges + 1500; ++i) {
    writer.Put(*Parse(MakeObject(i, "A")));
  }
  writer.Commit();
  // A transaction's own changes stay until the next one.
  const std::string query = "SELECT count(*), min(number), max(number) FROM changes";
  EXPECT_EQ(Query(path_, query), "11500|1|11500\n");
  writer.Begin();
  writer.Put(*Parse(MakeObject(1, "B")));
  writer.Commit();
  EXPECT_EQ(Query(path_, query), "10000|1502|11501\n");
}

TEST_F(StoreChanges, AreBoundedInBytes) {
  SqliteStoreWriter::Create(path_);
  SqliteStoreWriter writer(path_);
  const std::string large(1 << 20, 'x');  // 2 MiB in its binary form
  const auto put = [&](int i) {
    writer.Put(*Parse(MakeObject(
        1, "A", ".Property(\"Text\").String(\"" + large + std::to_string(i) + "\").End()")));
  };
  for (int i = 0; i < 24; ++i) {
    writer.Begin();
    put(i);
    writer.Commit();
  }
  // Behind the oldest row there are less than 16 MiB: seven objects of a little more than 2 MiB.
  EXPECT_EQ(Query(path_, "SELECT count(*), max(number) FROM changes"), "8|24\n");
  // A transaction's own changes stay until the next one.
  writer.Begin();
  for (int i = 24; i < 36; ++i) put(i);
  writer.Commit();
  EXPECT_EQ(Query(path_, "SELECT count(*), max(number) FROM changes"), "12|36\n");
  writer.Begin();
  put(36);
  writer.Commit();
  EXPECT_EQ(Query(path_, "SELECT count(*), max(number) FROM changes"), "8|37\n");
}

TEST_F(StoreChanges, NumbersOfDamagedStoresDoNotRunOver) {
  StoreNumbered(2);
  for (const char* total : {"9223372036854775807", "-1"}) {
    Execute(path_, std::string("UPDATE changes SET total = ") + total);
    SqliteStoreWriter writer(path_);
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(Catch([&] { writer.Begin(); }).GetCode(), 0x4000DU) << total;
    }
    // A failure leaves nothing locked, and the writer usable.
    Execute(path_, "UPDATE changes SET total = 0");
    writer.Begin();
  }
}

}  // namespace

}  // namespace Platform::Store
