#pragma once

#include <string>

#include "platform/store/object_store.h"
#include "platform/store/sqlite_database.h"

namespace Platform::Store {

// A store in an SQLite database. Each operation has a connection of its own: several go on at once,
// and none sees pages that another one has read.
class SqliteStore final : public ObjectStore {
 public:
  // Opens the store once, to see that it is one. Throws what SqliteDatabase::OpenForReading and
  // CheckSchema throw; 0x40017 when it stays locked for `lock_wait_milliseconds`.
  explicit SqliteStore(std::string path,
                       unsigned int lock_wait_milliseconds = SqliteDatabase::kLockWaitMilliseconds);

  const std::string& GetPath() const override { return path_; }
  std::unique_ptr<ObjectCursor> Select(const std::vector<IsKey>& demanded,
                                       const std::atomic<bool>& stop) const override;
  std::unique_ptr<ChangeWatch> Watch() const override;
  void List(const std::function<void(const ObjectSummary&)>& process) const override;
  StoreStatistics GetStatistics() const override;

  // The log as it is now. Borrows `stop`.
  std::unique_ptr<ChangeLog> ReadChanges(const std::atomic<bool>& stop) const;

  // The query of a Select that demands `count` keys.
  static std::string MakeSelectQuery(std::size_t count);

 private:
  // A connection in the middle of its transaction. `identity`, if not null, gets what tells the
  // file from another one in its place.
  std::unique_ptr<SqliteDatabase> Open(const std::atomic<bool>* stop,
                                       std::string* identity = nullptr) const;

  const std::string path_;
  const unsigned int lock_wait_milliseconds_;
};

}  // namespace Platform::Store
