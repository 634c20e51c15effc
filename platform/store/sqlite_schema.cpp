#include "platform/store/sqlite_schema.h"

#include "core/common/line_tag.h"
#include "platform/store/file_codes.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/sqlite_schema"};

long long ReadPragma(SqliteDatabase& database, const char* sql) {
  SqliteStatement statement(database, sql);
  return statement.Step() ? statement.GetInteger(0) : 0;
}

bool IsFirstVersion(SqliteDatabase& database) {
  return ReadPragma(database, "PRAGMA application_id") == kApplicationId &&
         ReadPragma(database, "PRAGMA user_version") == 1;
}

}  // namespace

void UpgradeSchema(SqliteDatabase& database) {
  if (!IsFirstVersion(database)) return;
  database.Execute("BEGIN IMMEDIATE");
  // Another writer may have done it meanwhile.
  if (IsFirstVersion(database)) {
    database.Execute(
        "ALTER TABLE changes ADD COLUMN stamp INTEGER NOT NULL DEFAULT 0;"
        "ALTER TABLE changes ADD COLUMN previous INTEGER NOT NULL DEFAULT 0;"
        "CREATE INDEX changes_by_seq ON changes(seq)");
    database.Execute(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
  }
  database.Execute("COMMIT");
}

void CheckSchema(SqliteDatabase& database) {
  if (ReadPragma(database, "PRAGMA application_id") != kApplicationId) {
    throw MakeFileError(Core::kFileOpenFailure, database.GetPath(),
                        "The database is not an object store.", kSource.At("CheckSchema", 10));
  }
  const long long version = ReadPragma(database, "PRAGMA user_version");
  if (version != kSchemaVersion) {
    throw MakeFileError(Core::kFileUnsupported, database.GetPath(),
                        "The store has version " + std::to_string(version) +
                            "; this program knows version " + std::to_string(kSchemaVersion) +
                            (version == 1 ? ". Open it for writing once." : "."),
                        kSource.At("CheckSchema", 20));
  }
}

}  // namespace Platform::Store
