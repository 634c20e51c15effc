#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "platform/store/sqlite_store_writer.h"
#include "tests/end_to_end/stage.h"

namespace EndToEnd {

// The unit text of an object with the type Thing, and the number of its change.
std::string MakeThing(std::uint64_t id, std::uint64_t change);
Por::OwnedUnit ParseThing(std::uint64_t id, std::uint64_t change);
// The identification of that object, as it is printed.
std::string MakeThingId(std::uint64_t id);

// Makes numbered changes of the things of a store, and tells whether a follower has seen them. All
// things are its own. One thread at a time.
class History : public Common::NonCopyable {
 public:
  // With some things to begin with.
  explicit History(const std::string& store);

  // One transaction of a few changes.
  void Change(std::mt19937& random);
  std::size_t GetSize() const { return changes_.size(); }

  // How much of it a follower has seen.
  enum class Extent {
    kPart,  // ended anywhere, be it among the things that were there at its beginning
    kFrom,  // those, and maybe some changes
    kAll,   // all changes behind its beginning
  };
  // What is wrong with the events of a follower: they must be all things as they were between two
  // transactions, in any order, and behind that each later change once, in order. Empty when
  // nothing is wrong.
  std::string Check(const std::vector<Event>& events, Extent extent) const;
  // Whether these events lead to the last change.
  bool HasSeenAll(const std::vector<Event>& events) const;

 private:
  enum Kind { kCreated, kUpdated, kDeleted };
  struct Made {
    Kind kind;
    std::uint64_t id;
    std::size_t next;         // change of the same thing, or kNone
    std::size_t thing_count;  // there were behind it
    bool is_last;             // of its transaction
  };
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  void Make(Kind kind, std::uint64_t id);
  void Commit();
  // The change that an event tells of, kNone for none; whether the event can't be that change
  // itself, but shows a thing as it was at the beginning.
  std::size_t Find(const Event& event, bool& is_snapshot) const;
  // Whether these are the last changes of the things that were there behind a change.
  bool IsSnapshot(std::vector<std::size_t> numbers, std::size_t moment) const;
  std::string CheckChanges(const std::vector<std::size_t>& numbers, std::size_t moment,
                           Extent extent) const;

  Platform::Store::SqliteStoreWriter writer_;
  std::vector<Made> changes_;
  std::map<std::uint64_t, std::size_t> things_;  // that are there, and the last change of each
  std::map<std::string, std::size_t> deleted_;   // by identification; none comes again
  std::uint64_t next_id_ = 1;
};

}  // namespace EndToEnd
