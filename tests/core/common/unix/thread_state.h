#pragma once

#include <atomic>
#include <span>

// The number by which the kernel knows the calling thread.
long GetThreadNumber();

// Whether a thread of this process sleeps in the kernel.
bool IsAsleep(long thread);

// Returns when all threads have told their numbers, which are 0 before, and sleep. A thread that
// tells its number just before a wait is then in it.
void WaitUntilAsleep(std::span<const std::atomic<long>> threads);
