#pragma once

// Counts of the allocation functions, which it replaces in the test program. All threads.
long CountAllocations();
long CountLiveAllocations();
