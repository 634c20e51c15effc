#include "tests/core/common/unix/thread_state.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

long GetThreadNumber() {
  return syscall(SYS_gettid);
}

bool IsAsleep(long thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::stringstream text;
  text << file.rdbuf();
  const std::string stat = text.str();
  const std::size_t end_of_name = stat.rfind(") ");
  return end_of_name != std::string::npos && stat.compare(end_of_name + 2, 1, "S") == 0;
}

void WaitUntilAsleep(std::span<const std::atomic<long>> threads) {
  // Once more for each thread: one may have slept on its way, for a lock that another one held.
  for (std::size_t passes = 0; passes <= threads.size();) {
    const bool all_sleep = std::all_of(threads.begin(), threads.end(), [](const auto& thread) {
      return thread != 0 && IsAsleep(thread);
    });
    passes = all_sleep ? passes + 1 : 0;
    if (!all_sleep) std::this_thread::yield();
  }
}
