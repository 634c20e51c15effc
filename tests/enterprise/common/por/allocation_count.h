#pragma once

// Calls of operator new on this thread since the program began.
unsigned long long GetAllocationCount() noexcept;
