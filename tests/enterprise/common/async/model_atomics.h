#pragma once

#include <cstdint>
#include <unordered_set>

#include "core/common/non_copyable.h"
#include "tests/enterprise/common/async/interleaving_explorer.h"

namespace Async::Testing {

// What threads under exploration share. Each use is a point, and none may come behind its end.
//
// An object takes over the history of the thread that writes it and adds to that of the thread that
// reads it. So two schedules with the same histories differ in the order of independent uses only,
// and have the same state, plain fields included.
class ModelObject : public Common::NonCopyable {
 public:
  // Before each schedule.
  static void Begin(InterleavingExplorer& running) {
    explorer = &running;
    locks_held = 0;
    for (ModelObject* object : Live()) object->history_ = 0;
  }
  static std::uint64_t SnapshotAll() {
    std::uint64_t sum = 0;  // in no order
    for (const ModelObject* object : Live()) {
      sum += InterleavingExplorer::Mix(object->id_, object->history_);
    }
    return sum;
  }

  static inline InterleavingExplorer* explorer = nullptr;

 protected:
  ModelObject() : id_(TakeId()) { Live().insert(this); }
  ~ModelObject() { Live().erase(this); }

  void Enter() const {
    if (explorer == nullptr) return;
    if (locks_held != 0) explorer->Abort("a lock is held where another thread may come in");
    explorer->Point();
    if (!Live().contains(const_cast<ModelObject*>(this)))
      explorer->Abort("something is used behind its end");
  }
  void NoteRead() const {
    if (explorer != nullptr) explorer->Remember(history_);
  }
  void NoteWrite() {
    if (explorer == nullptr) return;
    explorer->Remember(history_);
    history_ = InterleavingExplorer::Mix(id_, explorer->History());
  }

  static inline int locks_held = 0;

 private:
  static std::unordered_set<ModelObject*>& Live() {
    static std::unordered_set<ModelObject*> live;
    return live;
  }
  // The same in each schedule where the thread has come to the same place.
  static std::uint64_t TakeId() {
    if (explorer == nullptr || explorer->Current() < 0) return 1;
    explorer->Remember(3);
    return explorer->History();
  }

  const std::uint64_t id_;
  std::uint64_t history_ = 0;
};

// In the place of ThreadAtomics.
struct ModelAtomics {
  class Word : ModelObject {
   public:
    explicit Word(std::uintptr_t value) : value_(value) {}

    std::uintptr_t load() const {
      Enter();
      NoteRead();
      return value_;
    }
    bool compare_exchange_strong(std::uintptr_t& expected, std::uintptr_t desired) {
      Enter();
      if (value_ != expected) {
        NoteRead();
        return false;
      }
      value_ = desired;
      NoteWrite();
      return true;
    }

   private:
    std::uintptr_t value_;
  };

  // Never contended: there is no point while it is held.
  class Mutex : ModelObject {
   public:
    void Lock() {
      Enter();
      NoteWrite();
      ++locks_held;
    }
    void Unlock() {
      NoteWrite();
      --locks_held;
    }
  };
  class MutexLock : public Common::NonCopyable {
   public:
    explicit MutexLock(Mutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() { mutex_.Unlock(); }

   private:
    Mutex& mutex_;
  };
  using StaticMutex = Mutex;
  using StaticMutexLock = MutexLock;

  class Event : ModelObject {
   public:
    Event(bool manual_reset, bool set) : manual_reset_(manual_reset), set_(set) {}

    void Set() {
      Enter();
      set_ = true;
      NoteWrite();
    }
    void Wait() {
      explorer->Await([this] { return set_; });
      if (!manual_reset_) set_ = false;
      NoteWrite();
    }

   private:
    const bool manual_reset_;
    bool set_;
  };

  static void Pause() {
    ModelObject::explorer->Abort("an event meets a run that is being finished");
  }
};

}  // namespace Async::Testing
