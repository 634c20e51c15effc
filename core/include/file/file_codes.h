#pragma once

#include <cstdint>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/message_table.h"

// The codes of the files module (0x0004) and the rows of the message table that go with them.

namespace Core {

struct file_failure {
  std::uint32_t code;
  Common::MessageRow row;
};

inline constexpr file_failure kFileReadFailure{0x40001, Common::MessageRow::FileRead};
inline constexpr file_failure kEndOfFile{0x40002, Common::MessageRow::FileEnd};
inline constexpr file_failure kFileWriteFailure{0x40003, Common::MessageRow::FileWrite};
inline constexpr file_failure kDiskFull{0x40004, Common::MessageRow::FileDiskFull};
inline constexpr file_failure kFileSeekFailure{0x40005, Common::MessageRow::FileSeek};
inline constexpr file_failure kFileNoMemory{0x40006, Common::MessageRow::FileNoMemory};
inline constexpr file_failure kFileOpenFailure{0x40007, Common::MessageRow::FileOpen};
inline constexpr file_failure kFileDeleteFailure{0x40008, Common::MessageRow::FileDelete};
inline constexpr file_failure kFileRenameFailure{0x40009, Common::MessageRow::FileRename};
inline constexpr file_failure kFileCreateFailure{0x4000A, Common::MessageRow::FileCreate};
inline constexpr file_failure kDriveNotReady{0x4000B, Common::MessageRow::FileDriveNotReady};
inline constexpr file_failure kFileReadOnly{0x4000C, Common::MessageRow::FileReadOnly};
inline constexpr file_failure kFileCorrupted{0x4000D, Common::MessageRow::FileCorrupted};
inline constexpr file_failure kFileUnsupported{0x4000E, Common::MessageRow::FileUnsupported};
inline constexpr file_failure kFileCanceled{0x4000F, Common::MessageRow::FileCanceled};
inline constexpr file_failure kFileNotFound{0x40011, Common::MessageRow::FileNotFound};
inline constexpr file_failure kFileExists{0x40013, Common::MessageRow::FileExists};
inline constexpr file_failure kFileAccessDenied{0x40014, Common::MessageRow::FileAccessDenied};
inline constexpr file_failure kFileLockFailure{0x40017, Common::MessageRow::FileLock};
inline constexpr file_failure kFileBackupFailure{0x40019, Common::MessageRow::FileBackup};
inline constexpr file_failure kFileRecoverFailure{0x4001A, Common::MessageRow::FileRecover};
inline constexpr file_failure kFileSecurityFailure{0x40023, Common::MessageRow::FileSecurity};

// A record with the failure's code and its message in the words of the current table.
inline Common::Error MakeFileError(const file_failure& failure,
                                   const Common::LineTag& tag) noexcept {
  return Common::Error(failure.code, Common::GetMessageText(failure.row), tag);
}

}  // namespace Core
