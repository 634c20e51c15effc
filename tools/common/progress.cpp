#include "tools/common/progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace Tools {

namespace {

constexpr auto kFirstDelay = std::chrono::seconds(1);
constexpr auto kDelay = std::chrono::milliseconds(250);
constexpr char kWipe[] = "\r\033[K";  // to the first column, clear the line

}  // namespace

Progress::Progress(std::function<std::string()> describe, std::uint64_t step)
    : describe_(std::move(describe)),
      step_(step),
      active_(::isatty(STDERR_FILENO) != 0),
      next_(std::chrono::steady_clock::now() + kFirstDelay) {}

void Progress::Look() {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kDelay;
  shown_ = true;
  std::fprintf(stderr, "%s%s", kWipe, describe_().c_str());
}

void Progress::Finish() {
  if (shown_) std::fputs(kWipe, stderr);
  shown_ = false;
}

}  // namespace Tools
