#pragma once

#include <cstdint>

// Port: what this program calls of the security library.

// Starts the security client. `location` is that of the caller's line tag; the other two are 0.
// Returns 0 for success; otherwise the failure is the library's last error.
std::uint32_t Security_Initialize(std::uint64_t location, std::uint32_t reserved1,
                                  std::uint32_t reserved2);

// Sets `*data` to the byte form of the last error, an array from new[] that is the caller's then,
// and `*size` to its length. Both stay as they were when there is no last error.
void Security_GetLastError(unsigned char** data, std::uint32_t* size);
