#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "core/common/non_copyable.h"

namespace Tools {

// Tells on standard error how far a command is while it runs: only on a terminal, and only when it
// takes longer than a second. The line is wiped when the command ends, in whatever way.
class Progress : public Common::NonCopyable {
 public:
  // `describe` gives the text of the line. It is asked after every `step` steps at most.
  explicit Progress(std::function<std::string()> describe, std::uint64_t step = 256);
  ~Progress() { Finish(); }

  void Step() {
    if (++count_ % step_ == 0 && active_) Look();
  }
  void Finish();

 private:
  void Look();

  const std::function<std::string()> describe_;
  const std::uint64_t step_;
  const bool active_;
  std::uint64_t count_ = 0;
  std::chrono::steady_clock::time_point next_;
  bool shown_ = false;
};

}  // namespace Tools
