#include "core/common/unix/trace.h"

#include <sched.h>

#include <algorithm>
#include <atomic>

#include "core/common/non_copyable.h"
#include "core/common/unix/safe_assert.h"
#include "core/common/unix/static_mutex.h"

namespace Common {
namespace {

struct Place {
  // From the registration until the sink that was taken out has no user left. Guarded by
  // `registry_mutex`.
  bool is_taken = false;
  // Null also while a sink is being taken out.
  std::atomic<TraceSink*> sink{nullptr};
  // Threads that are looking at the place or are inside its sink.
  std::atomic<unsigned int> users{0};
};

constexpr std::uint64_t kNothing = ~std::uint64_t{0};

constinit Place places[8];
constinit StaticMutex registry_mutex;  // guards changes of `places` and the two levels
constinit std::atomic<unsigned int> threshold{kTraceInformation};
// Least level that reaches a sink, so that most calls end at one load.
constinit std::atomic<std::uint64_t> least_level{kNothing};

void UpdateLeastLevel() noexcept {
  std::uint64_t least = kNothing;
  for (const Place& place : places) {
    if (const TraceSink* sink = place.sink.load()) {
      least = std::min<std::uint64_t>(least, sink->GetLevel());
    }
  }
  least_level.store(std::max<std::uint64_t>(least, threshold.load()));
}

class PlaceUse : NonCopyable {
 public:
  explicit PlaceUse(Place& place) : place_(place) { place_.users.fetch_add(1); }
  ~PlaceUse() { place_.users.fetch_sub(1); }

 private:
  Place& place_;
};

template <class Char>
void SendToSinks(unsigned int level, std::uint32_t module, std::uint32_t code, const Char* text) {
  if (!IsTraced(level)) return;
  static constexpr Char kEmpty[1]{};
  for (Place& place : places) {
    // Doesn't count itself where there is no sink, so that taking one out comes to an end.
    if (place.sink.load() == nullptr) continue;
    const PlaceUse use(place);
    TraceSink* const sink = place.sink.load();
    if (sink != nullptr && level >= sink->GetLevel()) {
      sink->Write(level, module, code, text != nullptr ? text : kEmpty);
    }
  }
}

[[maybe_unused]] const bool hook_is_set = [] {
  SetSafeAssertEventHook(
      static_cast<void (*)(unsigned int, std::uint32_t, std::uint32_t, const char16_t*)>(&Trace));
  return true;
}();

}  // namespace

void Trace(unsigned int level, std::uint32_t module, std::uint32_t code, const char* text) {
  SendToSinks(level, module, code, text);
}

void Trace(unsigned int level, std::uint32_t module, std::uint32_t code, const char16_t* text) {
  SendToSinks(level, module, code, text);
}

bool IsTraced(unsigned int level) noexcept {
  return level >= least_level.load(std::memory_order_relaxed);
}

unsigned int GetTraceThreshold() noexcept {
  return threshold.load();
}

void SetTraceThreshold(unsigned int level) noexcept {
  const StaticMutexLock lock(registry_mutex);
  threshold.store(level);
  UpdateLeastLevel();
}

bool RegisterTraceSink(TraceSink& sink) noexcept {
  const StaticMutexLock lock(registry_mutex);
  Place* free = nullptr;
  for (Place& place : places) {
    if (place.sink.load() == &sink) return false;
    if (free == nullptr && !place.is_taken) free = &place;
  }
  if (free == nullptr) return false;
  free->is_taken = true;
  free->sink.store(&sink);
  UpdateLeastLevel();
  return true;
}

void UnregisterTraceSink(TraceSink& sink) noexcept {
  for (Place& place : places) {
    {
      const StaticMutexLock lock(registry_mutex);
      if (place.sink.load() != &sink) continue;
      // In one order with the additions to `users`: who comes later finds no sink.
      place.sink.store(nullptr);
      UpdateLeastLevel();
    }
    while (place.users.load() != 0) sched_yield();
    // Only now may another sink come here: its users would have been waited for too.
    const StaticMutexLock lock(registry_mutex);
    place.is_taken = false;
    return;
  }
}

}  // namespace Common
