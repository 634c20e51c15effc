#pragma once

#include "core/common/error.h"
#include "core/include/file/file_codes.h"

namespace Core {

// The error of a failed system call: `failure` names what the caller was about, unless `errnum`
// tells more (access, existence, memory, space and such have codes of their own). The POSIX error
// is its reason. The paths, as the file system has them, become its parameters: none, "path", or
// "path1" and "path2". A lock that others hold stays 0x40017.
Common::Error MakePosixError(const file_failure& failure, int errnum, const Common::LineTag& tag,
                             const char* path = nullptr, const char* path2 = nullptr) noexcept;

// The same record without a look at a system error, and without a reason.
Common::Error MakeFileError(const file_failure& failure, const Common::LineTag& tag,
                            const char* path, const char* path2 = nullptr) noexcept;

}  // namespace Core
