#pragma once

#include <string>

#include "core/common/error.h"
#include "core/include/file/file_codes.h"

// Failures of the store in the words of the files module.

namespace Platform::Store {

using FileFailure = Core::file_failure;

// The failure that a system error stands for, `fallback` when none.
FileFailure MapSystemFailure(int errnum, const FileFailure& fallback);

// A failure of a system call on the file `path`: mapped, with the system's reason behind it.
Common::Error MakeSystemError(const FileFailure& fallback, const std::string& path, int errnum,
                              const Common::LineTag& tag);

// The same with `reason` in words (ASCII) behind it.
Common::Error MakeFileError(const FileFailure& failure, const std::string& path,
                            const std::string& reason, const Common::LineTag& tag);

}  // namespace Platform::Store
