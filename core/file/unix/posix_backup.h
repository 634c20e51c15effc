#pragma once

#include "core/common/error.h"
#include "core/include/file/dir.h"

// What kBackupEntry and kRestoreEntry do in a posix_dir. The results become the directory's error;
// whatever these leave there meanwhile doesn't count. std::bad_alloc is thrown.

namespace Core {

class posix_dir;

// Saves the entry `request.path`, null for the directory itself: what CommonBackupFile writes, a
// chunk 7 with the extended attributes, and for files and directories the inode flags and file
// flags, where there are any. A failure in the first is wrapped in 0x40019, "path,name,$module". An
// attribute that can't be read is 0x40001 with its path and name; a list of attributes that can't
// be read, or changes meanwhile, is an empty one. What fails about the flags is dropped.
Common::Error PosixBackupFile(posix_dir& directory, const backup_record& request);

// The same for the entry of `directory` on which `entry` stands, under the name that it has in the
// file system, which `request.path` may be unable to tell (file_name.h).
Common::Error PosixBackupEntry(posix_dir& directory, i_dir::iterator& entry,
                               const backup_record& request);

// Makes the entry `request.path` from the chunks. Failures are wrapped in 0x4001A. A null path is
// an empty one, which fails. See core/file/restore_file.h.
Common::Error PosixRestoreFile(posix_dir& directory, const restore_record& request);

}  // namespace Core
