#pragma once

#include <cstdint>
#include <string>

#include "core/common/error.h"
#include "core/common/message_table.h"

// Failures of the store in the words of the files module.

namespace Platform::Store {

struct FileFailure {
  std::uint32_t code;
  Common::MessageRow row;
};

inline constexpr FileFailure kReadFailure{0x40001, Common::MessageRow::FileRead};
inline constexpr FileFailure kWriteFailure{0x40003, Common::MessageRow::FileWrite};
inline constexpr FileFailure kDiskFullFailure{0x40004, Common::MessageRow::FileDiskFull};
inline constexpr FileFailure kSeekFailure{0x40005, Common::MessageRow::FileSeek};
inline constexpr FileFailure kMemoryFailure{0x40006, Common::MessageRow::FileNoMemory};
inline constexpr FileFailure kOpenFailure{0x40007, Common::MessageRow::FileOpen};
inline constexpr FileFailure kCreateFailure{0x4000A, Common::MessageRow::FileCreate};
inline constexpr FileFailure kNotReadyFailure{0x4000B, Common::MessageRow::FileDriveNotReady};
inline constexpr FileFailure kReadOnlyFailure{0x4000C, Common::MessageRow::FileReadOnly};
inline constexpr FileFailure kCorruptedFailure{0x4000D, Common::MessageRow::FileCorrupted};
inline constexpr FileFailure kUnsupportedFailure{0x4000E, Common::MessageRow::FileUnsupported};
inline constexpr FileFailure kNotFoundFailure{0x40011, Common::MessageRow::FileNotFound};
inline constexpr FileFailure kExistsFailure{0x40013, Common::MessageRow::FileExists};
inline constexpr FileFailure kAccessFailure{0x40014, Common::MessageRow::FileAccessDenied};
inline constexpr FileFailure kLockFailure{0x40017, Common::MessageRow::FileLock};
inline constexpr FileFailure kRecoverFailure{0x4001A, Common::MessageRow::FileRecover};

// The failure that a system error stands for, `fallback` when none.
FileFailure MapSystemFailure(int errnum, const FileFailure& fallback);

// A failure of a system call on the file `path`: mapped, with the system's reason behind it.
Common::Error MakeSystemError(const FileFailure& fallback, const std::string& path, int errnum,
                              const Common::LineTag& tag);

// The same with `reason` in words (ASCII) behind it.
Common::Error MakeFileError(const FileFailure& failure, const std::string& path,
                            const std::string& reason, const Common::LineTag& tag);

}  // namespace Platform::Store
