#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <thread>

// The number by which the kernel knows the calling thread.
inline long GetThreadNumber() {
  return syscall(SYS_gettid);
}

// Whether a thread of this process sleeps in the kernel.
inline bool IsAsleep(long thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  const std::string stat(std::istreambuf_iterator<char>(file), {});
  const std::size_t end_of_name = stat.rfind(") ");
  return end_of_name != std::string::npos && stat.compare(end_of_name + 2, 1, "S") == 0;
}

// Returns when all threads have told their numbers, which are 0 before, and sleep. A thread that
// tells its number just before a wait is then in it.
inline void WaitUntilAsleep(std::span<const std::atomic<long>> threads) {
  // Once more for each thread: one may have slept on its way, for a lock that another one held.
  for (std::size_t passes = 0; passes <= threads.size();) {
    const bool all_sleep = std::all_of(threads.begin(), threads.end(), [](const auto& thread) {
      return thread != 0 && IsAsleep(thread);
    });
    passes = all_sleep ? passes + 1 : 0;
    if (!all_sleep) std::this_thread::yield();
  }
}
