#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/common/guid.h"
#include "enterprise/common/por/unit.h"
#include "platform/store/object_store.h"
#include "platform/store/sqlite_database.h"

namespace Platform::Store {

// Fills a store. All changes since Begin come into force together at Commit, or never: a process
// that dies in between leaves the store as it was. Readers go on meanwhile; a second writer waits.
// One thread.
class SqliteStoreWriter : public Common::NonCopyable {
 public:
  enum class Outcome { kUnchanged, kCreated, kUpdated };

  // The log of changes keeps at most so many, and behind the oldest of them at most so many bytes
  // of what was there before, but in any case those of the last transaction: a reader that has seen
  // all before it doesn't fall behind by its size.
  static constexpr long long kMaxChanges = 10000;
  static constexpr long long kMaxChangeBytes = 16 * 1024 * 1024;

  // Makes an empty store. Throws 0x40013 when there is something at `path`; an empty file, or one
  // that its journal makes empty, is taken for the rest of a Create that died; to see that, a
  // change that was interrupted there is taken back. A Create that fails may leave an empty file,
  // or with 0x40017 an empty store.
  static void Create(const std::string& path);

  // Opens an existing store. Throws as SqliteStore does, and 0x40014 or 0x4000C when it can't be
  // written.
  explicit SqliteStoreWriter(const std::string& path, unsigned int lock_wait_milliseconds =
                                                          SqliteDatabase::kLockWaitMilliseconds);
  // Changes that were not committed are dropped.
  ~SqliteStoreWriter();

  // Throws 0x40017 when another writer goes on for too long, 0x4000C when a reader of this process
  // does that was there first.
  void Begin();
  void Commit();

  // Stores an object under its key, in place of the one that has this key. Writes nothing when that
  // is the same to the byte. Throws 0xFC000A for an object without a key.
  Outcome Put(const Por::View::Unit& object);
  // False if there is no such object.
  bool Delete(const Common::Guid& id);

  // The objects as the changes so far leave them.
  // The binary form of one; false if there is no such object.
  bool Read(const Common::Guid& id, std::vector<unsigned char>& data);
  // Those that ObjectStore::Select would give, in its order, until `process` returns true. It must
  // not change the store.
  void ForEach(const std::vector<IsKey>& demanded,
               const std::function<bool(const StoredObject&)>& process);

 private:
  struct Statements;

  void Open();
  // Until Begin opens the store again.
  void Close() noexcept;
  bool Find(const Common::Guid& id, long long& number, std::vector<unsigned char>& data);

  void BeginChanges();
  void AddChange(unsigned int kind, long long number, const Common::Guid& id,
                 const unsigned char* before, std::size_t before_size);
  void AddIsKeys(long long number, const Por::View::Unit& object);
  void RemoveIsKeys(long long number);
  void TrimChanges();

  const std::string path_;
  const unsigned int lock_wait_milliseconds_;
  std::unique_ptr<SqliteDatabase> database_;  // null only when Begin has failed
  std::unique_ptr<Statements> statements_;
  std::vector<unsigned char> data_;    // kept between calls
  std::vector<unsigned char> before_;  // likewise
  long long change_bytes_ = 0;         // `total` of the last change
  long long last_committed_ = 0;       // number of the last change before Begin
  long long stamp_ = 0;                // of the transaction
  long long previous_stamp_ = 0;       // of the last change
  long long untrimmed_changes_ = 0;
  long long untrimmed_bytes_ = 0;
};

}  // namespace Platform::Store
