#pragma once

#include <chrono>
#include <cstdint>

#include "core/common/non_copyable.h"

namespace StoreTool {

// Counts objects on standard error while a command runs: only on a terminal, and only when it takes
// longer than a second. The line is wiped when the command ends, in whatever way.
class Progress : public Common::NonCopyable {
 public:
  // `total` 0: not known.
  explicit Progress(std::uint64_t total);
  ~Progress() { Finish(); }

  void Add() {
    if (++count_ % kLookStep == 0 && active_) Look();
  }
  void Finish();

 private:
  static constexpr std::uint64_t kLookStep = 256;

  void Look();

  const std::uint64_t total_;
  const bool active_;
  std::uint64_t count_ = 0;
  std::chrono::steady_clock::time_point next_;
  bool shown_ = false;
};

}  // namespace StoreTool
