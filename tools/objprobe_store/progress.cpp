#include "tools/objprobe_store/progress.h"

#include <unistd.h>

#include <cstdio>

namespace StoreTool {

namespace {

constexpr auto kFirstDelay = std::chrono::seconds(1);
constexpr auto kDelay = std::chrono::milliseconds(250);
constexpr char kWipe[] = "\r\033[K";  // to the first column, clear the line

}  // namespace

Progress::Progress(std::uint64_t total)
    : total_(total),
      active_(::isatty(STDERR_FILENO) != 0),
      next_(std::chrono::steady_clock::now() + kFirstDelay) {}

void Progress::Look() {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kDelay;
  shown_ = true;
  const auto count = static_cast<unsigned long long>(count_);
  if (total_ == 0) {
    std::fprintf(stderr, "%s%llu objects", kWipe, count);
  } else {
    std::fprintf(stderr, "%s%llu of %llu objects", kWipe, count,
                 static_cast<unsigned long long>(total_));
  }
}

void Progress::Finish() {
  if (shown_) std::fputs(kWipe, stderr);
  shown_ = false;
}

}  // namespace StoreTool
