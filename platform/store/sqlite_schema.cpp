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

}  // namespace

void CheckSchema(SqliteDatabase& database) {
  if (ReadPragma(database, "PRAGMA application_id") != kApplicationId) {
    throw MakeFileError(kOpenFailure, database.GetPath(), "The database is not an object store.",
                        kSource.At("CheckSchema", 10));
  }
  const long long version = ReadPragma(database, "PRAGMA user_version");
  if (version != kSchemaVersion) {
    throw MakeFileError(kUnsupportedFailure, database.GetPath(),
                        "The store has version " + std::to_string(version) +
                            "; this program knows version " + std::to_string(kSchemaVersion) + ".",
                        kSource.At("CheckSchema", 20));
  }
}

}  // namespace Platform::Store
