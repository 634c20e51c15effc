#include "platform/store/sqlite_store.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "core/common/line_tag.h"
#include "enterprise/common/async/async_error.h"
#include "platform/store/file_codes.h"
#include "platform/store/sqlite_change_log.h"
#include "platform/store/sqlite_change_watch.h"
#include "platform/store/sqlite_schema.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/sqlite_store"};

// Between two tries to read a store whose files another process is just making or removing.
constexpr std::chrono::milliseconds kFirstPause{1};
constexpr std::chrono::milliseconds kLastPause{10};

class SqliteCursor final : public ObjectCursor {
 public:
  SqliteCursor(std::unique_ptr<SqliteDatabase> database, std::string identity,
               const std::vector<IsKey>& demanded)
      : database_(std::move(database)),
        identity_(std::move(identity)),
        demanded_(demanded),
        statement_(*database_, SqliteStore::MakeSelectQuery(demanded.size()).c_str()) {
    int place = 1;
    for (const IsKey& key : demanded_) statement_.BindBlob(place++, key.data(), key.size());
  }

  bool Next(StoredObject& object) override {
    if (!statement_.Step()) return false;
    object.number = statement_.GetInteger(0);
    object.data = statement_.GetBlob(1, object.size);
    return true;
  }

  ChangePosition GetPosition() const override { return GetLastPosition(*database_, identity_); }

 private:
  const std::unique_ptr<SqliteDatabase> database_;
  const std::string identity_;
  const std::vector<IsKey> demanded_;
  SqliteStatement statement_;
};

}  // namespace

SqliteStore::SqliteStore(std::string path, unsigned int lock_wait_milliseconds)
    : path_(std::move(path)), lock_wait_milliseconds_(lock_wait_milliseconds) {
  Open(nullptr);
}

std::unique_ptr<SqliteDatabase> SqliteStore::Open(const std::atomic<bool>* stop,
                                                  std::string* identity) const {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(lock_wait_milliseconds_);
  for (auto pause = kFirstPause;; pause = std::min(2 * pause, kLastPause)) {
    if (identity != nullptr) *identity = IdentifyFile(path_);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    auto database = SqliteDatabase::OpenForReading(
        path_, {static_cast<unsigned int>(std::max<long long>(left, 0)), stop});
    try {
      // One transaction from the check to the last row: what was checked is what is read. The check
      // is its first read, and the only one that can meet unfinished files.
      database->Execute("BEGIN");
      CheckSchema(*database);
      // What lay there before the opening and behind it is what was opened.
      if (identity == nullptr || *identity == IdentifyFile(path_)) return database;
      if (Clock::now() >= end) {
        throw MakeFileError(Core::kFileOpenFailure, path_,
                            "The file was replaced while it was opened.", kSource.At("Open", 10));
      }
    } catch (const Common::Error&) {
      if (!database->MetUnfinishedFiles() || Clock::now() >= end) throw;
    }
    if (stop != nullptr && stop->load(std::memory_order_relaxed)) {
      throw Common::Error(Async::canceled_error.Get());
    }
    database.reset();
    std::this_thread::sleep_for(pause);
  }
}

std::string SqliteStore::MakeSelectQuery(std::size_t count) {
  if (count == 0) return "SELECT seq, data FROM objects ORDER BY seq";
  std::string query =
      "SELECT o.seq, o.data FROM object_is AS i CROSS JOIN objects AS o ON o.seq = i.seq"
      " WHERE i.value = ?1";
  for (std::size_t place = 2; place <= count; ++place) {
    query += " AND EXISTS(SELECT 1 FROM object_is AS x WHERE x.value = ?" + std::to_string(place) +
             " AND x.seq = i.seq)";
  }
  return query + " ORDER BY i.seq";
}

std::unique_ptr<ObjectCursor> SqliteStore::Select(const std::vector<IsKey>& demanded,
                                                  const std::atomic<bool>& stop) const {
  std::string identity;
  auto database = Open(&stop, &identity);
  return std::make_unique<SqliteCursor>(std::move(database), std::move(identity), demanded);
}

std::unique_ptr<ChangeWatch> SqliteStore::Watch() const {
  return std::make_unique<SqliteChangeWatch>(*this);
}

std::unique_ptr<ChangeLog> SqliteStore::ReadChanges(const std::atomic<bool>& stop) const {
  std::string identity;
  auto database = Open(&stop, &identity);
  return std::make_unique<SqliteChangeLog>(std::move(database), std::move(identity));
}

void SqliteStore::List(const std::function<void(const ObjectSummary&)>& process) const {
  const auto database = Open(nullptr);
  SqliteStatement statement(*database, "SELECT id, type, length(data) FROM objects ORDER BY seq");
  while (statement.Step()) {
    ObjectSummary summary;
    std::size_t size = 0;
    const unsigned char* id = statement.GetBlob(0, size);
    std::copy_n(id, std::min(size, summary.id.bytes.size()), summary.id.bytes.begin());
    summary.type = statement.GetText(1);
    summary.size = static_cast<unsigned long long>(statement.GetInteger(2));
    process(summary);
  }
}

StoreStatistics SqliteStore::GetStatistics() const {
  const auto database = Open(nullptr);
  StoreStatistics result;
  result.version = kSchemaVersion;
  SqliteStatement objects(*database, "SELECT count(*), sum(length(data)) FROM objects");
  if (objects.Step()) {
    result.objects = static_cast<unsigned long long>(objects.GetInteger(0));
    result.bytes = static_cast<unsigned long long>(objects.GetInteger(1));
  }
  SqliteStatement changes(*database,
                          "SELECT (SELECT count(*) FROM changes),"
                          " (SELECT seq FROM sqlite_sequence WHERE name = 'changes')");
  if (changes.Step()) {
    result.changes = static_cast<unsigned long long>(changes.GetInteger(0));
    result.last_change = changes.GetInteger(1);
  }
  SqliteStatement types(*database, "SELECT value, count(*) FROM object_is GROUP BY value");
  while (types.Step()) {
    std::size_t size = 0;
    const unsigned char* key = types.GetBlob(0, size);
    result.types.push_back({DescribeIsKey(IsKey(key, key + size)),
                            static_cast<unsigned long long>(types.GetInteger(1))});
  }
  std::sort(result.types.begin(), result.types.end(),
            [](const StoreStatistics::Type& a, const StoreStatistics::Type& b) {
              return a.objects != b.objects ? a.objects > b.objects : a.name < b.name;
            });
  return result;
}

}  // namespace Platform::Store
