#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/common/non_copyable.h"
#ifdef PLANTED_FAULTS
namespace Async {

// What is wrong in the copies of the production sources that the build makes, to prove that the
// explorer finds such faults.
enum class PlantedFault {
  kNone,
  kOwnerStays,        // the thread that leaves the loop of a sequence stays its owner
  kFinishBeforeTick,  // a listener's wait is over before its tick
  kRowDropped,        // the change CANCELLING to CANCELLING_COMPLETED is refused
  kTellsFirst,        // the handler is told before the control is free
  kAgesByStore,       // a beat ages the mark of a step that its thread has taken meanwhile
  kNoGrace,           // the tick comes to a mark with the first beat
  kTakesTicked,       // the thread takes the step that its tick was given for
  kMarkUnwatched,     // marks are not shown to the beats
};

}  // namespace Async

#include "planted/job_control_inl.h"
#include "planted/metronome_inl.h"
#include "planted/tail_recursion_inl.h"
#else
#include "enterprise/common/async/job_control_inl.h"
#include "enterprise/common/async/metronome_inl.h"
#include "enterprise/common/async/tail_recursion_inl.h"
#endif
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
  // The thread has looked at what is here, or has failed to change it; it keeps nothing of that
  // beyond its next look.
  void NoteGlance(bool seen) const {
    if (explorer != nullptr) explorer->Glance(seen ? InterleavingExplorer::Mix(id_, history_) : 0);
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
#ifdef PLANTED_FAULTS
  static inline PlantedFault fault = PlantedFault::kNone;
#endif

  // The state word of a control, whose event steps look again after each change that failed.
  class Word : ModelObject {
   public:
    explicit Word(std::uintptr_t value) : value_(value) {}

    std::uintptr_t load() const {
      Enter();
      NoteGlance(true);
      return value_;
    }
    bool compare_exchange_strong(std::uintptr_t& expected, std::uintptr_t desired) {
      Enter();
      if (value_ != expected) {
        NoteGlance(false);
        return false;
      }
      value_ = desired;
      NoteWrite();
      return true;
    }

   private:
    std::uintptr_t value_;
  };

  // What is read decides what the reader does from there on.
  class Counter : ModelObject {
   public:
    explicit Counter(std::uintptr_t value) : value_(value) {}

    std::uintptr_t load(std::memory_order = {}) const {
      Enter();
      NoteRead();
      return value_;
    }
    void store(std::uintptr_t value, std::memory_order = {}) { exchange(value); }
    std::uintptr_t exchange(std::uintptr_t value) {
      Enter();
      NoteWrite();
      return std::exchange(value_, value);
    }
    bool compare_exchange_strong(std::uintptr_t& expected, std::uintptr_t desired) {
      Enter();
      const bool equal = value_ == expected;
      (equal ? value_ : expected) = equal ? desired : value_;
      if (equal) {
        NoteWrite();
      } else {
        NoteRead();
      }
      return equal;
    }
    void fetch_add(std::uintptr_t change) {
      Enter();
      value_ += change;
      NoteWrite();
    }
    void fetch_sub(std::uintptr_t change) { fetch_add(0 - change); }

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

  // Correct users never come here.
  static void Pause() {
    ModelObject::explorer->Abort("an event meets a run that is being finished");
  }
};

inline InterleavingExplorer& Explorer() {
  return *ModelObject::explorer;
}

inline std::uint64_t MixAll(std::uint64_t hash, const std::vector<int>& values) {
  for (const int value : values) {
    hash = InterleavingExplorer::Mix(hash, static_cast<std::uint64_t>(value));
  }
  return hash;
}

class ModelScenario : public InterleavingExplorer::Scenario {
 protected:
  static void Expect(bool good, const char* rule) {
    if (good) return;
#ifdef PLANTED_FAULTS
    // What would come next is a use of freed memory.
    Explorer().Abort(std::string("broken: ") + rule);
#else
    Explorer().Fail(std::string("broken: ") + rule);
#endif
  }
};

// All interleavings of the scenario with at most `preemptions` changes of thread that nothing
// forces. The first failure with its schedule; empty if there is none.
template <class Scenario, class Situation>
std::string Explore(const Situation& situation,
                    int preemptions = InterleavingExplorer::kUnbounded) {
  InterleavingExplorer all;
  const std::string failure = all.Explore(
      [&] {
        ModelObject::Begin(all);
        return std::make_unique<Scenario>(situation);
      },
      preemptions);
  ModelObject::explorer = nullptr;
  testing::Test::RecordProperty("schedules", static_cast<int>(all.Schedules()));
  // Far fewer would mean that the threads no longer meet.
  EXPECT_TRUE(all.Schedules() >= Scenario::kFewestSchedules || !failure.empty());
  return failure;
}

#ifdef PLANTED_FAULTS
// The scenario ends the process where it meets the fault, and passes without it.
template <class Scenario, class Situation>
void ExpectFound(PlantedFault fault, const char* finding, const Situation& situation,
                 int preemptions = InterleavingExplorer::kUnbounded) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(
      {
        ModelAtomics::fault = fault;
        Explore<Scenario>(situation, preemptions);
      },
      std::string(finding) + "; schedule 0");
  EXPECT_EQ(Explore<Scenario>(situation, preemptions), "");
}
#endif

}  // namespace Async::Testing
