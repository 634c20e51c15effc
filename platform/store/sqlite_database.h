#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/common/error.h"
#include "core/common/non_copyable.h"

struct sqlite3;
struct sqlite3_stmt;

// SQLite as the store uses it: connections and statements that throw Common::Error. No other folder
// sees SQLite. Threads: one at a time for a connection with all its statements.

namespace Platform::Store {

class SqliteDatabase : public Common::NonCopyable {
 public:
  // How long an operation waits for a lock that another process holds.
  static constexpr unsigned int kLockWaitMilliseconds = 5000;

  struct Options {
    unsigned int lock_wait_milliseconds = kLockWaitMilliseconds;
    // Looked at while waiting and working; true ends the operation as canceled. Borrowed by the
    // connection.
    const std::atomic<bool>* stop = nullptr;
  };

  // Opens an existing file. Throws with the path and the reason behind it: 0x40011 no such file,
  // 0x40014 no permission, 0x40007 no regular file or not to be opened. Neither looks inside.
  // For reading: nothing is created, changed or left behind, whatever the state of the store.
  static std::unique_ptr<SqliteDatabase> OpenForReading(const std::string& path,
                                                        const Options& options);
  static std::unique_ptr<SqliteDatabase> OpenForWriting(const std::string& path,
                                                        const Options& options);
  ~SqliteDatabase();

  // Runs statements that give no rows.
  void Execute(const char* sql);

  long long GetLastInsertedRow() const;
  // Rows that the last statement changed.
  long long GetChangedRows() const;
  const std::string& GetPath() const { return path_; }

  // The failure of the last operation, whose result was `result`. By what happened: 0xF90002
  // canceled, 0x40017 locked, 0x4001A left in the middle of a change by a program that died (only a
  // connection for writing can mend that), 0x4000D corrupted or no database, 0x4000C read-only,
  // 0x40004 disk full, 0x40006 no memory, 0x40014 no permission, 0x40007 not opened; any other
  // 0x40001, or 0x40003 on a connection for writing. With the path; the words of SQLite and of the
  // system are behind it.
  Common::Error MakeError(int result) const;
  // The last operation of this connection for reading failed because it met the log's index, or a
  // journal, while another process was making or removing it. SQLite doesn't wait for that; a new
  // connection may find it done.
  bool MetUnfinishedFiles() const;
  // The last operation of this connection for writing failed because readers of this process had
  // the log's index mapped before it: SQLite keeps one mapping for a process, and theirs can't be
  // written. A new connection may find them gone.
  bool MetOwnReaders() const;

 private:
  friend class SqliteStatement;

  SqliteDatabase(std::string path, const Options& options, bool writing);
  static std::unique_ptr<SqliteDatabase> Open(const std::string& path, const Options& options,
                                              bool writing);
  static int OnBusy(void* self, int count);
  static int OnProgress(void* self);

  const std::string path_;
  const Options options_;
  const bool writing_;
  sqlite3* handle_ = nullptr;
};

// A prepared statement. Places are numbered from 1, columns from 0. The database must outlive it.
class SqliteStatement : public Common::NonCopyable {
 public:
  SqliteStatement(SqliteDatabase& database, const char* sql);
  ~SqliteStatement();

  void Bind(int place, long long value);
  // The bytes are borrowed until Reset.
  void BindBlob(int place, const void* data, std::size_t size);
  void BindText(int place, std::string_view text);
  void BindNull(int place);

  // True for a row, false at the end.
  bool Step();
  // Runs a statement that gives no rows and makes it ready for the next run.
  void Run();
  void Reset();

  long long GetInteger(int column) const;
  // Valid until the next step. Null with size 0 for NULL.
  const unsigned char* GetBlob(int column, std::size_t& size);
  std::string_view GetText(int column);

 private:
  void Check(int result) const;

  SqliteDatabase* const database_;
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace Platform::Store
