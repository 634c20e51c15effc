#include "platform/store/sqlite_store_writer.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include "core/common/line_tag.h"
#include "core/common/unix/safe_close.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/por/unit_blob.h"
#include "platform/store/file_codes.h"
#include "platform/store/is_index.h"
#include "platform/store/sqlite_schema.h"
#include "platform/store/sqlite_store.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/sqlite_store_writer"};

// The log is trimmed each time so many changes, or so many bytes, have come on top.
constexpr long long kTrimStep = 1000;
constexpr long long kTrimBytes = 1024 * 1024;
constexpr std::chrono::milliseconds kPause{5};
// No log comes to so many bytes. In one that says so they could run over.
constexpr long long kImpossibleBytes = 1LL << 62;

// - A log reaches the main file at the last close only, see read_only_vfs.h.
// - The cache holds the index of identifications, which come in no order, for a million objects.
constexpr char kWriterPragmas[] =
    "PRAGMA wal_autocheckpoint = 0;"
    "PRAGMA synchronous = FULL;"
    "PRAGMA cache_size = -65536";

// The name is taken first: SQLite itself would open what is there. What a Create that died may have
// left is taken too: an empty file, or one with a journal by which it becomes empty again. True if
// there is such a journal.
bool TakeFile(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (descriptor >= 0) {
    Common::SafeClose(descriptor);
    return false;
  }
  const int errnum = errno;
  struct stat status {};
  if (errnum == EEXIST && ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
    if (status.st_size == 0) return false;
    std::error_code ignored;  // without the real path there is no journal either
    const std::filesystem::path real = std::filesystem::canonical(path, ignored);
    if (::access((real.native() + "-journal").c_str(), F_OK) == 0) return true;
  }
  throw MakeSystemError(Core::kFileCreateFailure, path, errnum, kSource.At("TakeFile", 10));
}

// Waits for others itself: SQLite gives up at once when this meets a reader.
void SwitchToLog(SqliteDatabase& database, unsigned int lock_wait_milliseconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(lock_wait_milliseconds);
  for (;;) {
    try {
      database.Execute("PRAGMA journal_mode = WAL");
      return;
    } catch (const Common::Error& error) {
      if (error.GetCode() != Core::kFileLockFailure.code || Clock::now() >= end) throw;
    }
    std::this_thread::sleep_for(kPause);
  }
}

// All in one transaction, and only in a file that is still empty then.
void MakeTables(const std::string& path) {
  const auto database = SqliteDatabase::OpenForWriting(path, {});
  database->Execute(kCreatePragmas);
  database->Execute("BEGIN EXCLUSIVE");
  {
    SqliteStatement version(*database, "PRAGMA schema_version");
    if (version.Step() && version.GetInteger(0) != 0) {
      throw MakeSystemError(Core::kFileCreateFailure, path, EEXIST, kSource.At("MakeTables", 20));
    }
  }
  database->Execute(kCreateTables);
  database->Execute(("PRAGMA application_id = " + std::to_string(kApplicationId)).c_str());
  database->Execute(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
  database->Execute("COMMIT");
  SwitchToLog(*database, SqliteDatabase::kLockWaitMilliseconds);
}

}  // namespace

struct SqliteStoreWriter::Statements {
  explicit Statements(SqliteDatabase& database)
      : find(database, "SELECT seq, data FROM objects WHERE id = ?1"),
        insert(database, "INSERT INTO objects(id, type, data) VALUES(?1, ?2, ?3)"),
        update(database, "UPDATE objects SET type = ?2, data = ?3 WHERE seq = ?1"),
        remove(database, "DELETE FROM objects WHERE seq = ?1"),
        add_is(database, "INSERT INTO object_is(value, seq) VALUES(?1, ?2)"),
        remove_is(database, "DELETE FROM object_is WHERE seq = ?1"),
        add_change(database,
                   "INSERT INTO changes(kind, seq, id, total, before, stamp, previous)"
                   " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)"),
        last_change(database,
                    "SELECT number, total, stamp FROM changes ORDER BY number DESC LIMIT 1"),
        remove_old(database,
                   "DELETE FROM changes"
                   " WHERE number <= min((SELECT max(number) FROM changes) - ?1, ?2)"),
        remove_oldest(database,
                      "DELETE FROM changes WHERE number = (SELECT min(number) FROM changes)"
                      " AND total < ?1 AND number <= ?2") {}

  SqliteStatement find;
  SqliteStatement insert;
  SqliteStatement update;
  SqliteStatement remove;
  SqliteStatement add_is;
  SqliteStatement remove_is;
  SqliteStatement add_change;
  SqliteStatement last_change;
  SqliteStatement remove_old;
  SqliteStatement remove_oldest;
};

void SqliteStoreWriter::Create(const std::string& path) {
  const bool has_journal = TakeFile(path);
  // A failure leaves the file there: another process may have made it its store by now.
  try {
    MakeTables(path);
  } catch (const Common::Error& error) {
    // Beside a journal these tell that something of others lies there; all else is a failure of its
    // own.
    const std::uint32_t code = error.GetCode();
    const bool is_taken = code == Core::kFileOpenFailure.code ||
                          code == Core::kFileCorrupted.code || code == Core::kFileLockFailure.code;
    if (!has_journal || !is_taken) throw;
    throw MakeSystemError(Core::kFileCreateFailure, path, EEXIST, kSource.At("Create", 30));
  }
}

SqliteStoreWriter::SqliteStoreWriter(const std::string& path, unsigned int lock_wait_milliseconds)
    : path_(path), lock_wait_milliseconds_(lock_wait_milliseconds) {
  Open();
}

void SqliteStoreWriter::Open() {
  auto database = SqliteDatabase::OpenForWriting(path_, {lock_wait_milliseconds_, nullptr});
  database->Execute(kWriterPragmas);
  UpgradeSchema(*database);
  CheckSchema(*database);
  SwitchToLog(*database, lock_wait_milliseconds_);
  statements_ = std::make_unique<Statements>(*database);
  database_ = std::move(database);
}

// Closing drops the changes, too.
SqliteStoreWriter::~SqliteStoreWriter() = default;

void SqliteStoreWriter::Close() noexcept {
  statements_.reset();
  database_.reset();
}

void SqliteStoreWriter::Begin() {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(lock_wait_milliseconds_);
  for (;;) {
    if (database_ == nullptr) Open();
    try {
      database_->Execute("BEGIN IMMEDIATE");
      break;
    } catch (const Common::Error&) {
      if (!database_->MetOwnReaders() || Clock::now() >= end) throw;
    }
    Close();
    std::this_thread::sleep_for(kPause);
  }
  try {
    BeginChanges();
  } catch (...) {
    // A ROLLBACK could fail in its turn.
    Close();
    throw;
  }
}

void SqliteStoreWriter::BeginChanges() {
  SqliteStatement& last = statements_->last_change;
  last_committed_ = change_bytes_ = previous_stamp_ = 0;
  if (last.Step()) {
    last_committed_ = last.GetInteger(0);
    change_bytes_ = last.GetInteger(1);
    previous_stamp_ = last.GetInteger(2);
  }
  last.Reset();
  if (change_bytes_ < 0 || change_bytes_ >= kImpossibleBytes) {
    throw MakeFileError(Core::kFileCorrupted, path_,
                        "The log of changes holds an impossible number of bytes.",
                        kSource.At("BeginChanges", 40));
  }
  if (::getrandom(&stamp_, sizeof stamp_, 0) != static_cast<ssize_t>(sizeof stamp_)) {
    throw MakeSystemError(Core::kFileWriteFailure, path_, errno, kSource.At("BeginChanges", 50));
  }
}

void SqliteStoreWriter::Commit() {
  TrimChanges();
  database_->Execute("COMMIT");
}

bool SqliteStoreWriter::Find(const Common::Guid& id, long long& number,
                             std::vector<unsigned char>& data) {
  SqliteStatement& run = statements_->find;
  run.BindBlob(1, id.bytes.data(), id.bytes.size());
  const bool exists = run.Step();
  if (exists) {
    number = run.GetInteger(0);
    std::size_t size = 0;
    const unsigned char* stored = run.GetBlob(1, size);
    data.assign(stored, stored + size);
  }
  run.Reset();
  return exists;
}

bool SqliteStoreWriter::Read(const Common::Guid& id, std::vector<unsigned char>& data) {
  long long number = 0;
  return Find(id, number, data);
}

void SqliteStoreWriter::ForEach(const std::vector<IsKey>& demanded,
                                const std::function<bool(const StoredObject&)>& process) {
  SqliteStatement statement(*database_, SqliteStore::MakeSelectQuery(demanded.size()).c_str());
  int place = 1;
  for (const IsKey& key : demanded) statement.BindBlob(place++, key.data(), key.size());
  StoredObject object;
  do {
    if (!statement.Step()) return;
    object.number = statement.GetInteger(0);
    object.data = statement.GetBlob(1, object.size);
  } while (!process(object));
}

SqliteStoreWriter::Outcome SqliteStoreWriter::Put(const Por::View::Unit& object) {
  const Common::Guid id = Dml::GetKeyGuid(Dml::FindObjectKey(object));
  Por::Util::WriteUnitBlob(object, data_);
  const std::string type = GetTypeText(object);

  Statements& run = *statements_;
  long long number = 0;
  const bool exists = Find(id, number, before_);
  if (exists && before_ == data_) return Outcome::kUnchanged;

  if (exists) {
    run.update.Bind(1, number);
    run.update.BindText(2, type);
    run.update.BindBlob(3, data_.data(), data_.size());
    run.update.Run();
    RemoveIsKeys(number);
  } else {
    run.insert.BindBlob(1, id.bytes.data(), id.bytes.size());
    run.insert.BindText(2, type);
    run.insert.BindBlob(3, data_.data(), data_.size());
    run.insert.Run();
    number = database_->GetLastInsertedRow();
  }
  AddIsKeys(number, object);
  if (exists) {
    AddChange(Dml::ViewManagement::kUpdateUpdated, number, id, before_.data(), before_.size());
    return Outcome::kUpdated;
  }
  AddChange(Dml::ViewManagement::kUpdateCreated, number, id, nullptr, 0);
  return Outcome::kCreated;
}

bool SqliteStoreWriter::Delete(const Common::Guid& id) {
  long long number = 0;
  if (!Find(id, number, before_)) return false;
  statements_->remove.Bind(1, number);
  statements_->remove.Run();
  RemoveIsKeys(number);
  AddChange(Dml::ViewManagement::kUpdateDeleted, number, id, before_.data(), before_.size());
  return true;
}

void SqliteStoreWriter::AddIsKeys(long long number, const Por::View::Unit& object) {
  for (const IsKey& key : GetIsKeys(object)) {
    statements_->add_is.BindBlob(1, key.data(), key.size());
    statements_->add_is.Bind(2, number);
    statements_->add_is.Run();
  }
}

void SqliteStoreWriter::RemoveIsKeys(long long number) {
  statements_->remove_is.Bind(1, number);
  statements_->remove_is.Run();
}

void SqliteStoreWriter::AddChange(unsigned int kind, long long number, const Common::Guid& id,
                                  const unsigned char* before, std::size_t before_size) {
  const auto bytes = static_cast<long long>(before_size);
  change_bytes_ += bytes;
  SqliteStatement& run = statements_->add_change;
  run.Bind(1, static_cast<long long>(kind));
  run.Bind(2, number);
  run.BindBlob(3, id.bytes.data(), id.bytes.size());
  run.Bind(4, change_bytes_);
  if (before != nullptr) {
    run.BindBlob(5, before, before_size);
  } else {
    run.BindNull(5);
  }
  run.Bind(6, stamp_);
  run.Bind(7, previous_stamp_);
  run.Run();
  previous_stamp_ = stamp_;
  ++untrimmed_changes_;
  untrimmed_bytes_ += bytes;
  if (untrimmed_changes_ >= kTrimStep || untrimmed_bytes_ >= kTrimBytes) TrimChanges();
}

void SqliteStoreWriter::TrimChanges() {
  if (untrimmed_changes_ == 0) return;
  SqliteStatement& by_number = statements_->remove_old;
  by_number.Bind(1, kMaxChanges);
  by_number.Bind(2, last_committed_);
  by_number.Run();
  SqliteStatement& by_bytes = statements_->remove_oldest;
  by_bytes.Bind(1, change_bytes_ - kMaxChangeBytes);
  by_bytes.Bind(2, last_committed_);
  do {
    by_bytes.Run();
  } while (database_->GetChangedRows() > 0);
  untrimmed_changes_ = 0;
  untrimmed_bytes_ = 0;
}

}  // namespace Platform::Store
