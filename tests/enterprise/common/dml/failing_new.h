#pragma once

// Replaces operator new of the test program, so that a run of allocations of one thread can fail.

// The next `count` allocations of this thread raise std::bad_alloc. Also starts the count below.
void FailNextAllocations(int count) noexcept;
// How many have failed on this thread since.
int GetFailedAllocations() noexcept;
