#pragma once

// Calls of operator new on this thread since the program began.
unsigned long long GetAllocationCount() noexcept;

// The next call of operator new on this thread throws std::bad_alloc.
void FailNextAllocation() noexcept;
