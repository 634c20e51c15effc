#pragma once

#include <chrono>

namespace Platform::Store {

// When to look next at a store that others write.
//
// Whoever writes makes the change visible some time later, when the disk has it. So a look behind
// an event mostly comes too early, and others follow it: the next one kShortestPause later, which
// nothing shortens, then each half of the time since the event later. With every such look behind
// events that finds nothing its pause doubles, until one finds something or kQuietTime goes by
// without events: a large transaction tells of itself all the time. Where a change comes without an
// event in the kQuietTime before it, the pause is an eighth of the time since the last such change,
// from kShortestBlindPause on. All pauses end at kLongestPause.
class LookPace {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kShortestPause{1};
  static constexpr std::chrono::milliseconds kShortestBlindPause{2};
  static constexpr std::chrono::milliseconds kLongestPause{20};
  static constexpr std::chrono::milliseconds kQuietTime{100};

  struct Pause {
    Clock::duration time;
    bool is_ended_by_event;
  };

  explicit LookPace(Clock::time_point now) : changed_(now), stirred_(now - kQuietTime) {}

  // The pause behind a look that has ended now. `had_events`: there were some since the look
  // before; `has_found`: it has found a change.
  Pause NoteLook(Clock::time_point now, bool had_events, bool has_found);

 private:
  Clock::time_point changed_;  // the last change that came without an event
  Clock::time_point stirred_;  // the last look behind events
  int vain_ = 0;               // so many looks behind events have found nothing
};

}  // namespace Platform::Store
