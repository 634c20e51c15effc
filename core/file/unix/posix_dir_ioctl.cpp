#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/time.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <string>

#include "core/file/unix/file_system_name.h"
#include "core/file/unix/guarded_operation.h"
#include "core/file/unix/posix_backup.h"
#include "core/file/unix/posix_dir.h"
#include "core/file/unix/posix_error.h"
#include "core/file/unix/posix_time.h"

namespace Core {
namespace {

constexpr Common::SourceFile kSource{"core/file/unix/posix_dir_ioctl"};

// "/a/", the shortest path with a component to cut.
constexpr std::size_t kShortestInnerPath = 3;

}  // namespace

void posix_dir::IOCTL(ioctl_record& record) {
  switch (record.code) {
    case kSetEntryTimes:
      return SetEntryTimes(static_cast<const entry_times_record&>(record));
    case kBackupEntry:
      return GuardOperation(*this, kSource.At("IOCTL", 40), [&] {
        SetError(PosixBackupFile(*this, static_cast<const backup_record&>(record)));
      });
    case kRestoreEntry:
      return GuardOperation(*this, kSource.At("IOCTL", 50), [&] {
        SetError(PosixRestoreFile(*this, static_cast<const restore_record&>(record)));
      });
    case kGetFileSystemName:
      return GetFileSystemName(static_cast<file_system_name_record&>(record));
    case kGetSystemPath:
      return GetSystemPath(static_cast<system_path_record&>(record));
    default:
      rio_dir::IOCTL(record);
  }
}

void posix_dir::SetEntryTimes(const entry_times_record& record) {
  const Common::LineTag tag = kSource.At("IOCTL", 10);
  GuardOperation(*this, tag, [&] {
    const std::string path = Join(record.path);
    if (path.empty()) return SetError(MakeFileError(kFileReadFailure, tag));
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) {
      return SetError(MakePosixError(kFileReadFailure, errno, tag, path.c_str()));
    }
    if (S_ISLNK(status.st_mode)) {
      return SetError(MakeFileError(kFileUnsupported, tag, path.c_str()));
    }
    const timeval times[] = {MakeTimeval(record.access_time), MakeTimeval(record.modify_time)};
    if (::utimes(path.c_str(), times) != 0) {
      SetError(MakePosixError(kFileWriteFailure, errno, tag, path.c_str()));
    }
  });
}

void posix_dir::GetFileSystemName(file_system_name_record& record) {
  const Common::LineTag tag = kSource.At("IOCTL", 20);
  GuardOperation(*this, tag, [&] {
    const std::string path = GetClosedPath();
    struct statfs status;
    if (::statfs(path.c_str(), &status) != 0) {
      return SetError(MakePosixError(kFileUnsupported, errno, tag, path.c_str()));
    }
    char16_t* end = record.name;
    const char* name = Core::GetFileSystemName(static_cast<std::uint32_t>(status.f_type));
    for (; *name != 0; ++name) {
      *end++ = static_cast<char16_t>(std::toupper(static_cast<unsigned char>(*name)));
    }
    *end = 0;
  });
}

void posix_dir::GetSystemPath(system_path_record& record) {
  const Common::LineTag tag = kSource.At("IOCTL", 30);
  GuardOperation(*this, tag, [&] {
    const char16_t* const wide_path = GetPath();
    if (wide_path == nullptr) return;
    std::string path = GetClosedPath();
    struct stat status;
    while (::stat(path.c_str(), &status) != 0) {
      const int errnum = errno;
      if ((errnum != ENOENT && errnum != ENOTDIR) || path.size() < kShortestInnerPath) {
        return SetError(MakePosixError(kFileUnsupported, errnum, tag, path.c_str()));
      }
      path.resize(path.rfind('/', path.size() - 2) + 1);
    }
    record.path = wide_path;
    record.major_number = gnu_dev_major(status.st_dev);
    record.minor_number = gnu_dev_minor(status.st_dev);
  });
}

std::string posix_dir::GetClosedPath() const {
  return path_.size() > 1 ? path_ + '/' : path_;
}

}  // namespace Core
