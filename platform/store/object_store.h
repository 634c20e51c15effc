#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/guid.h"
#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "platform/store/is_index.h"

// An object store for reading, whatever holds its rows. What reports and subscriptions need and no
// more: the rest of the post office is the same for every kind of store.

namespace Platform::Store {

// A row as it is stored. Valid until the next step of its cursor.
struct StoredObject {
  long long number = 0;                 // place in the store's order
  const unsigned char* data = nullptr;  // the object's binary form
  std::size_t size = 0;
};

// A place between two changes of a store.
struct ChangePosition {
  std::string store;     // tells the store from another one that takes its place
  long long number = 0;  // of the change before; 0 for none
  // What the log says at that change: these tell it from another one of that number.
  long long total = 0;
  long long stamp = 0;
};

// A walk over objects, in the order in which they first came into the store. All of it sees the
// store at one moment. One thread at a time.
class ObjectCursor : public Common::NonCopyable {
 public:
  virtual ~ObjectCursor() = default;
  // False at the end. Throws Common::Error; 0xF90002 when stopped.
  virtual bool Next(StoredObject& object) = 0;
  // That moment: behind it come the changes that the walk doesn't see. Throws as Next.
  virtual ChangePosition GetPosition() const = 0;
};

// A change of one object with its state on both sides of it: `has_before` alone for a deletion,
// `has_after` alone for a creation, both for an update. Valid until the next step of its log.
struct StoredChange {
  long long number = 0;
  long long total = 0;
  long long stamp = 0;
  long long object = 0;  // place in the store's order; a later object may get that of a deleted one
  Common::Guid id;
  bool has_before = false;
  bool has_after = false;
  const unsigned char* before = nullptr;
  std::size_t before_size = 0;
  const unsigned char* after = nullptr;
  std::size_t after_size = 0;
};

// The changes that a store still knows, all seen at one moment. One thread at a time. Throws
// Common::Error; 0xF90002 when stopped, 0x4000D when the log contradicts itself.
class ChangeLog : public Common::NonCopyable {
 public:
  virtual ~ChangeLog() = default;
  // The number of the last change, 0 before the first.
  virtual long long GetLast() const = 0;
  // Throws 0x40005 when the log doesn't lead on from `position`: changes behind it are no longer
  // known, or the store was replaced by another one, or by an older state of itself.
  virtual void Check(const ChangePosition& position) = 0;
  // Goes to a place that Check has accepted.
  virtual void Seek(const ChangePosition& position) = 0;
  // The next change, in the order of their commits. False at the end.
  virtual bool Next(StoredChange& change) = 0;
};

// Looks at the log again and again for what is new. Nothing stays open or locked between two looks.
// One thread at a time.
class ChangeWatch : public Common::NonCopyable {
 public:
  virtual ~ChangeWatch() = default;
  // The log as it is now. Null when nothing can have changed since the last look, unless `always`.
  // Meant for every few milliseconds: costs microseconds then. `stop` is borrowed by the log and
  // ends its steps and this call, waits for locks included. Throws as ChangeLog.
  virtual std::unique_ptr<ChangeLog> Look(bool always, const std::atomic<bool>& stop) = 0;
  // Can be read, as poll tells, when something is being written: sooner than the change can be
  // seen, and not for every change. -1 while there is none; a Look may make one.
  virtual int GetDescriptor() const = 0;
  // Takes what can be read from the descriptor. True if it concerns the store.
  virtual bool TakeEvents() = 0;
};

struct ObjectSummary {
  Common::Guid id;
  std::string type;             // UTF-8, may be empty
  unsigned long long size = 0;  // bytes of the binary form
};

struct StoreStatistics {
  struct Type {
    std::string name;  // UTF-8
    unsigned long long objects = 0;
  };

  long long version = 0;
  unsigned long long objects = 0;
  unsigned long long bytes = 0;  // of all binary forms
  // Changes that are still known, by number; the last one is 0 before the first change.
  unsigned long long changes = 0;
  long long last_change = 0;
  // One for each value of an `Is` trait, the most frequent first, equal counts by name.
  std::vector<Type> types;
};

// Threads: any, several at once.
class ObjectStore : public Common::NonCopyable {
 public:
  virtual ~ObjectStore() = default;
  // Where the store is, for messages.
  virtual const std::string& GetPath() const = 0;
  // The objects that have all of `demanded` among their `Is` keys; all objects for none. `stop` is
  // borrowed by the cursor and ends its steps, waits for locks included.
  virtual std::unique_ptr<ObjectCursor> Select(const std::vector<IsKey>& demanded,
                                               const std::atomic<bool>& stop) const = 0;
  // The store must outlive the watch.
  virtual std::unique_ptr<ChangeWatch> Watch() const = 0;
  // In order.
  virtual void List(const std::function<void(const ObjectSummary&)>& process) const = 0;
  virtual StoreStatistics GetStatistics() const = 0;
};

// Opens an existing store for reading; nothing is created or changed. The connection string is
// "sqlite:PATH" or a bare path. Throws Common::Error: what SqliteStore says, 0x40007 for a path
// that holds U+0000.
std::unique_ptr<ObjectStore> OpenObjectStore(const Common::String& connection_string);

// The path in a connection string of bytes.
std::string GetStorePath(std::string_view connection_string);

}  // namespace Platform::Store
