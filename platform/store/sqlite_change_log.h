#pragma once

#include <memory>
#include <string>

#include "platform/store/object_store.h"
#include "platform/store/sqlite_database.h"

namespace Platform::Store {

// The position behind the last change that the transaction of `database` sees.
ChangePosition GetLastPosition(SqliteDatabase& database, const std::string& identity);

// Tells a file from another one that takes its place under the same path. Throws 0x40011 and the
// like when there is none.
std::string IdentifyFile(const std::string& path);

// The table of changes in one transaction. What it reads is in proportion to the calls of Next,
// whatever else the log holds.
class SqliteChangeLog final : public ChangeLog {
 public:
  // The connection has begun its transaction.
  SqliteChangeLog(std::unique_ptr<SqliteDatabase> database, std::string identity);
  ~SqliteChangeLog() override;

  long long GetLast() const override { return last_.number; }
  void Check(const ChangePosition& position) override;
  void Seek(const ChangePosition& position) override;
  bool Next(StoredChange& change) override;

 private:
  struct Statements;

  [[noreturn]] void ThrowCorrupted(long long number) const;

  const std::unique_ptr<SqliteDatabase> database_;
  const std::string identity_;
  const ChangePosition last_;
  std::unique_ptr<Statements> statements_;
  // Of the change where the walk stands.
  long long number_ = 0;
  long long total_ = 0;
  long long stamp_ = 0;
};

}  // namespace Platform::Store
