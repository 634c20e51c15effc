#include "core/file/unix/posix_error.h"

#include <cerrno>

namespace Core {
namespace {

const file_failure& Refine(const file_failure& failure, int errnum) {
  switch (errnum) {
    case EPERM:
    case EACCES:
    case ETXTBSY:
      return failure.code == kFileLockFailure.code ? failure : kFileAccessDenied;
    case ENOENT:
      return kFileNotFound;
    case ENOMEM:
      return kFileNoMemory;
    case EBUSY:
    case ENODEV:
    case ENOMEDIUM:
      return kDriveNotReady;
    case EEXIST:
      return kFileExists;
    case ENOSPC:
      return kDiskFull;
    case EROFS:
      return kFileReadOnly;
    case EOPNOTSUPP:
      return kFileUnsupported;
    default:
      return failure;
  }
}

}  // namespace

Common::Error MakePosixError(const file_failure& failure, int errnum, const Common::LineTag& tag,
                             const char* path, const char* path2) noexcept {
  Common::Error error = MakeFileError(Refine(failure, errnum), tag, path, path2);
  error.AddPosixError(errnum);
  return error;
}

Common::Error MakeFileError(const file_failure& failure, const Common::LineTag& tag,
                            const char* path, const char* path2) noexcept {
  if (path == nullptr) return MakeFileError(failure, tag);
  const char16_t* const text = Common::GetMessageText(failure.row);
  return path2 == nullptr ? Common::MakePathError(failure.code, text, path, tag)
                          : Common::MakeTwoPathsError(failure.code, text, path, path2, tag);
}

}  // namespace Core
