#include "platform/store/look_pace.h"

#include <algorithm>

namespace Platform::Store {

LookPace::Pause LookPace::NoteLook(Clock::time_point now, bool had_events, bool has_found) {
  if (had_events) stirred_ = now;
  const bool is_quiet = now - stirred_ >= kQuietTime;
  if (has_found && is_quiet) changed_ = now;
  if (has_found || is_quiet) vain_ = 0;
  Clock::duration pause = kShortestPause;
  if (had_events) {
    if (!has_found) ++vain_;
    for (int i = 1; i < vain_ && pause < kLongestPause; ++i) pause *= 2;
  } else {
    pause = std::min(std::max<Clock::duration>((now - stirred_) / 2, kShortestPause),
                     std::max<Clock::duration>((now - changed_) / 8, kShortestBlindPause));
  }
  return {std::min<Clock::duration>(pause, kLongestPause), !had_events};
}

}  // namespace Platform::Store
