#pragma once

#include <cstdint>

namespace Core {

// The name, in lower case, of the file system with that number: the lowest 32 bits of f_type, which
// some systems extend by their sign. A number without a name gives the name that was found last in
// the process, "" when there was none. Static; for all threads.
const char* GetFileSystemName(std::uint32_t type) noexcept;

}  // namespace Core
