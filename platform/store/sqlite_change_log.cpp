#include "platform/store/sqlite_change_log.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "core/common/line_tag.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "platform/store/file_codes.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/sqlite_change_log"};

// Numbers are never given twice, also when the rows are gone.
long long GetLastNumber(SqliteDatabase& database) {
  SqliteStatement statement(database, "SELECT seq FROM sqlite_sequence WHERE name = 'changes'");
  return statement.Step() ? statement.GetInteger(0) : 0;
}

}  // namespace

std::string IdentifyFile(const std::string& path) {
  struct statx status {};
  if (::statx(AT_FDCWD, path.c_str(), 0, STATX_INO | STATX_BTIME, &status) != 0) {
    throw MakeSystemError(Core::kFileOpenFailure, path, errno, kSource.At("IdentifyFile", 10));
  }
  // Numbers of removed files are given again; the birth time, where it is known, tells them apart.
  std::string identity;
  for (const unsigned long long part :
       {static_cast<unsigned long long>(status.stx_dev_major),
        static_cast<unsigned long long>(status.stx_dev_minor),
        static_cast<unsigned long long>(status.stx_ino),
        static_cast<unsigned long long>(status.stx_btime.tv_sec),
        static_cast<unsigned long long>(status.stx_btime.tv_nsec)}) {
    identity.append(std::to_string(part)).append(1, ':');
  }
  return identity;
}

ChangePosition GetLastPosition(SqliteDatabase& database, const std::string& identity) {
  ChangePosition position;
  position.store = identity;
  position.number = GetLastNumber(database);
  SqliteStatement last(database, "SELECT total, stamp FROM changes ORDER BY number DESC LIMIT 1");
  if (last.Step()) {
    position.total = last.GetInteger(0);
    position.stamp = last.GetInteger(1);
  }
  return position;
}

struct SqliteChangeLog::Statements {
  explicit Statements(SqliteDatabase& database)
      : next(database,
             "SELECT number, total - coalesce(length(before), 0), previous FROM changes"
             " WHERE number > ?1 ORDER BY number LIMIT 1"),
        known(database, "SELECT total, stamp FROM changes WHERE number = ?1"),
        walk(database,
             "SELECT number, kind, seq, id, total, before, stamp, previous FROM changes"
             " WHERE number > ?1 ORDER BY number"),
        later(database,
              "SELECT kind, before FROM changes INDEXED BY changes_by_seq"
              " WHERE seq = ?1 AND number > ?2 ORDER BY number LIMIT 1"),
        object(database, "SELECT data FROM objects WHERE seq = ?1") {}

  SqliteStatement next;
  SqliteStatement known;
  SqliteStatement walk;
  SqliteStatement later;
  SqliteStatement object;
};

SqliteChangeLog::SqliteChangeLog(std::unique_ptr<SqliteDatabase> database, std::string identity)
    : database_(std::move(database)),
      identity_(std::move(identity)),
      last_(GetLastPosition(*database_, identity_)) {}

SqliteChangeLog::~SqliteChangeLog() = default;

void SqliteChangeLog::Check(const ChangePosition& position) {
  const auto refuse = [this](const std::string& reason, std::uint32_t line) {
    return MakeFileError(Core::kFileSeekFailure, database_->GetPath(), reason,
                         kSource.At("Check", line));
  };
  const auto refuse_other = [&] {
    return refuse("Another store has taken the store's place.", 40);
  };
  if (position.store != identity_) throw refuse("Another file has taken the store's place.", 20);
  if (position.number > last_.number) {
    throw refuse("The store has gone back behind change " + std::to_string(position.number) + ".",
                 30);
  }
  if (position.number == last_.number) {
    if (position.total != last_.total || position.stamp != last_.stamp) throw refuse_other();
    return;
  }
  if (statements_ == nullptr) statements_ = std::make_unique<Statements>(*database_);
  SqliteStatement& next = statements_->next;
  next.Reset();
  next.Bind(1, position.number);
  const bool has_next = next.Step();
  const long long expected = position.number + 1;
  const bool leads_on = has_next && next.GetInteger(0) == expected;
  if (leads_on && next.GetInteger(1) == position.total && next.GetInteger(2) == position.stamp) {
    return;
  }
  SqliteStatement& known = statements_->known;
  known.Reset();
  known.Bind(1, position.number);
  const bool is_known = known.Step();
  if (is_known && known.GetInteger(0) == position.total && known.GetInteger(1) == position.stamp) {
    ThrowCorrupted(expected);
  }
  if (is_known || leads_on) throw refuse_other();
  // The number may be any that lies in the file.
  const auto oldest = has_next ? static_cast<unsigned long long>(next.GetInteger(0))
                               : static_cast<unsigned long long>(last_.number) + 1;
  throw refuse("The reader has fallen behind: it waits for change " + std::to_string(expected) +
                   ", and the log begins with change " + std::to_string(oldest) + ".",
               50);
}

void SqliteChangeLog::Seek(const ChangePosition& position) {
  number_ = position.number;
  total_ = position.total;
  stamp_ = position.stamp;
  if (number_ == last_.number) return;
  if (statements_ == nullptr) statements_ = std::make_unique<Statements>(*database_);
  statements_->walk.Reset();
  statements_->walk.Bind(1, number_);
}

bool SqliteChangeLog::Next(StoredChange& change) {
  if (number_ == last_.number) return false;
  const long long number = number_ + 1;
  SqliteStatement& walk = statements_->walk;
  change = {};
  change.number = number;
  if (!walk.Step() || walk.GetInteger(0) != number) ThrowCorrupted(number);
  const long long kind = walk.GetInteger(1);
  if (kind < 0 || kind > Dml::ViewManagement::kUpdateDeleted) ThrowCorrupted(number);
  change.object = walk.GetInteger(2);
  change.total = walk.GetInteger(4);
  change.stamp = walk.GetInteger(6);
  if (walk.GetInteger(7) != stamp_) ThrowCorrupted(number);
  std::size_t id_size = 0;
  const unsigned char* id = walk.GetBlob(3, id_size);
  if (id_size != change.id.bytes.size()) ThrowCorrupted(number);
  std::copy_n(id, id_size, change.id.bytes.begin());
  change.has_before = kind != Dml::ViewManagement::kUpdateCreated;
  change.has_after = kind != Dml::ViewManagement::kUpdateDeleted;
  change.before = walk.GetBlob(5, change.before_size);
  // Without overflow, whatever the numbers are.
  if (static_cast<unsigned long long>(change.total) - static_cast<unsigned long long>(total_) !=
      change.before_size) {
    ThrowCorrupted(number);
  }
  if (change.has_after) {
    // What it was before its next change, or is now.
    SqliteStatement& later = statements_->later;
    later.Reset();
    later.Bind(1, change.object);
    later.Bind(2, number);
    if (later.Step()) {
      if (later.GetInteger(0) == Dml::ViewManagement::kUpdateCreated) ThrowCorrupted(number);
      change.after = later.GetBlob(1, change.after_size);
    } else {
      SqliteStatement& object = statements_->object;
      object.Reset();
      object.Bind(1, change.object);
      if (!object.Step()) ThrowCorrupted(number);
      change.after = object.GetBlob(0, change.after_size);
    }
  }
  number_ = number;
  total_ = change.total;
  stamp_ = change.stamp;
  return true;
}

void SqliteChangeLog::ThrowCorrupted(long long number) const {
  throw MakeFileError(
      Core::kFileCorrupted, database_->GetPath(),
      "The log of changes doesn't fit together at change " + std::to_string(number) + ".",
      kSource.At("ThrowCorrupted", 60));
}

}  // namespace Platform::Store
