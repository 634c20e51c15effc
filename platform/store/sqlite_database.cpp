#include "platform/store/sqlite_database.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/async/async_error.h"
#include "platform/store/file_codes.h"
#include "platform/store/read_only_vfs.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/sqlite_database"};

// Virtual machine steps between two looks at the stop flag; a row takes about ten.
constexpr int kProgressSteps = 1000;

// What SQLite's open would answer with one and the same "unable to open", or not at all: it waits
// without a limit on a pipe.
void CheckFile(const std::string& path, bool writing) {
  struct stat status {};
  if (path.empty() || ::stat(path.c_str(), &status) != 0) {
    throw MakeSystemError(Core::kFileOpenFailure, path, path.empty() ? ENOENT : errno,
                          kSource.At("CheckFile", 10));
  }
  if (S_ISDIR(status.st_mode)) {
    throw MakeSystemError(Core::kFileOpenFailure, path, EISDIR, kSource.At("CheckFile", 20));
  }
  if (!S_ISREG(status.st_mode)) {
    throw MakeFileError(Core::kFileOpenFailure, path, "This is no regular file.",
                        kSource.At("CheckFile", 30));
  }
  const int mode = writing ? R_OK | W_OK : R_OK;
  if (::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) != 0) {
    throw MakeSystemError(Core::kFileOpenFailure, path, errno, kSource.At("CheckFile", 40));
  }
}

bool IsIndexUnfinished(int result) {
  return result == SQLITE_READONLY_RECOVERY || result == SQLITE_READONLY_CANTLOCK ||
         result == SQLITE_READONLY_CANTINIT;
}

// The path as an address, so that parameters can follow it.
std::string MakeUri(const std::string& path) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string uri = path.front() == '/' ? "file://" : "file:";
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
        (byte >= 'A' && byte <= 'Z') || byte == '/' || byte == '.' || byte == '-' || byte == '_') {
      uri += c;
    } else {
      uri += '%';
      uri += kDigits[byte >> 4];
      uri += kDigits[byte & 0xF];
    }
  }
  return uri;
}

}  // namespace

SqliteDatabase::SqliteDatabase(std::string path, const Options& options, bool writing)
    : path_(std::move(path)), options_(options), writing_(writing) {}

SqliteDatabase::~SqliteDatabase() {
  sqlite3_close(handle_);
}

std::unique_ptr<SqliteDatabase> SqliteDatabase::OpenForReading(const std::string& path,
                                                               const Options& options) {
  return Open(path, options, false);
}

std::unique_ptr<SqliteDatabase> SqliteDatabase::OpenForWriting(const std::string& path,
                                                               const Options& options) {
  return Open(path, options, true);
}

std::unique_ptr<SqliteDatabase> SqliteDatabase::Open(const std::string& path,
                                                     const Options& options, bool writing) {
  CheckFile(path, writing);
  std::unique_ptr<SqliteDatabase> database(new SqliteDatabase(path, options, writing));
  std::string uri = MakeUri(path);
  const char* layer = nullptr;
  if (!writing) {
    uri += "?readonly_shm=1";
    layer = RegisterReadOnlyVfs();
    if (layer == nullptr) throw database->MakeError(SQLITE_CANTOPEN);
  }
  const int mode = writing ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY;
  const int result = sqlite3_open_v2(uri.c_str(), &database->handle_,
                                     mode | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, layer);
  if (result != SQLITE_OK) throw database->MakeError(result);
  sqlite3_extended_result_codes(database->handle_, 1);
  sqlite3_busy_handler(database->handle_, &OnBusy, database.get());
  if (options.stop != nullptr) {
    sqlite3_progress_handler(database->handle_, kProgressSteps, &OnProgress, database.get());
  }
  // A database from elsewhere must not run code of its own through triggers and views.
  sqlite3_db_config(database->handle_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  database->Execute("PRAGMA temp_store = MEMORY");
  return database;
}

int SqliteDatabase::OnBusy(void* self, int count) {
  const auto& database = *static_cast<const SqliteDatabase*>(self);
  if (OnProgress(self) != 0) return 0;
  // 1 ms at first, then 10: `count` looks so far.
  const unsigned int waits = static_cast<unsigned int>(count);
  const unsigned int waited = waits < 10 ? waits : 10 + (waits - 10) * 10;
  if (waited >= database.options_.lock_wait_milliseconds) return 0;
  std::this_thread::sleep_for(std::chrono::milliseconds(waits < 10 ? 1 : 10));
  return 1;
}

int SqliteDatabase::OnProgress(void* self) {
  const std::atomic<bool>* stop = static_cast<const SqliteDatabase*>(self)->options_.stop;
  return stop != nullptr && stop->load(std::memory_order_relaxed) ? 1 : 0;
}

Common::Error SqliteDatabase::MakeError(int result) const {
  const Common::LineTag tag = kSource.At("MakeError", 60);
  FileFailure failure = writing_ ? Core::kFileWriteFailure : Core::kFileReadFailure;
  switch (result & 0xFF) {
    case SQLITE_INTERRUPT:
      return Async::canceled_error.Get();
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_PROTOCOL:
      if (options_.stop != nullptr && options_.stop->load(std::memory_order_relaxed)) {
        return Async::canceled_error.Get();
      }
      failure = Core::kFileLockFailure;
      break;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR:  // what the schema promises is not there
    case SQLITE_SCHEMA:
      failure = Core::kFileCorrupted;
      break;
    case SQLITE_READONLY:
      failure = IsIndexUnfinished(result) && !writing_ ? Core::kFileLockFailure
                : result == SQLITE_READONLY_ROLLBACK   ? Core::kFileRecoverFailure
                                                       : Core::kFileReadOnly;
      break;
    case SQLITE_FULL:
      failure = Core::kDiskFull;
      break;
    case SQLITE_NOMEM:
      failure = Core::kFileNoMemory;
      break;
    case SQLITE_PERM:
    case SQLITE_AUTH:
      failure = Core::kFileAccessDenied;
      break;
    case SQLITE_CANTOPEN:
      failure = Core::kFileOpenFailure;
      break;
    default:
      break;
  }
  int errnum = 0;
  const int primary = result & 0xFF;
  if (handle_ != nullptr && (primary == SQLITE_CANTOPEN || primary == SQLITE_IOERR)) {
    errnum = sqlite3_system_errno(handle_);
    if (errnum != 0) failure = MapSystemFailure(errnum, failure);
  }
  std::string text = "SQLite: ";
  text += handle_ != nullptr && sqlite3_extended_errcode(handle_) == result
              ? sqlite3_errmsg(handle_)
              : sqlite3_errstr(result);
  text += " (" + std::to_string(result) + ")";
  if (result == SQLITE_READONLY_ROLLBACK) {
    text = "A change of the store was interrupted; open it for writing once. " + text;
  }
  Common::Error reason(failure.code, text.c_str(), tag);
  if (errnum != 0) reason.AddPosixError(errnum);
  Common::Error error =
      Common::MakePathError(failure.code, Common::GetMessageText(failure.row), path_.c_str(), tag);
  error.SetReason(reason);
  return error;
}

bool SqliteDatabase::MetUnfinishedFiles() const {
  if (writing_) return false;
  const int result = sqlite3_extended_errcode(handle_);
  if (result != SQLITE_READONLY_ROLLBACK) return IsIndexUnfinished(result);
  // A journal that is gone again was not left behind. It stands beside the file that the path leads
  // to.
  const char* const journal = sqlite3_filename_journal(sqlite3_db_filename(handle_, "main"));
  return ::access(journal, F_OK) != 0;
}

bool SqliteDatabase::MetOwnReaders() const {
  return writing_ && sqlite3_extended_errcode(handle_) == SQLITE_READONLY &&
         sqlite3_db_readonly(handle_, "main") == 0;
}

void SqliteDatabase::Execute(const char* sql) {
  const int result = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
  if (result != SQLITE_OK) throw MakeError(result);
}

long long SqliteDatabase::GetLastInsertedRow() const {
  return sqlite3_last_insert_rowid(handle_);
}

long long SqliteDatabase::GetChangedRows() const {
  return sqlite3_changes64(handle_);
}

SqliteStatement::SqliteStatement(SqliteDatabase& database, const char* sql) : database_(&database) {
  Check(sqlite3_prepare_v2(database.handle_, sql, -1, &statement_, nullptr));
}

SqliteStatement::~SqliteStatement() {
  sqlite3_finalize(statement_);
}

void SqliteStatement::Check(int result) const {
  if (result != SQLITE_OK) throw database_->MakeError(result);
}

void SqliteStatement::Bind(int place, long long value) {
  Check(sqlite3_bind_int64(statement_, place, value));
}

void SqliteStatement::BindBlob(int place, const void* data, std::size_t size) {
  // A null address would bind NULL.
  Check(sqlite3_bind_blob64(statement_, place, size == 0 ? "" : data, size, SQLITE_STATIC));
}

void SqliteStatement::BindText(int place, std::string_view text) {
  Check(sqlite3_bind_text64(statement_, place, text.empty() ? "" : text.data(), text.size(),
                            SQLITE_STATIC, SQLITE_UTF8));
}

void SqliteStatement::BindNull(int place) {
  Check(sqlite3_bind_null(statement_, place));
}

bool SqliteStatement::Step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  throw database_->MakeError(result);
}

void SqliteStatement::Run() {
  Step();
  Reset();
}

// The result repeats a failure that Step has thrown.
void SqliteStatement::Reset() {
  sqlite3_reset(statement_);
}

long long SqliteStatement::GetInteger(int column) const {
  return sqlite3_column_int64(statement_, column);
}

const unsigned char* SqliteStatement::GetBlob(int column, std::size_t& size) {
  const void* data = sqlite3_column_blob(statement_, column);
  size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  if (data == nullptr && size == 0 && sqlite3_errcode(database_->handle_) == SQLITE_NOMEM) {
    throw database_->MakeError(SQLITE_NOMEM);
  }
  return static_cast<const unsigned char*>(data);
}

std::string_view SqliteStatement::GetText(int column) {
  const unsigned char* text = sqlite3_column_text(statement_, column);
  if (text == nullptr) return {};
  return {reinterpret_cast<const char*>(text),
          static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

}  // namespace Platform::Store
