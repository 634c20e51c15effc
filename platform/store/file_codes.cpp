#include "platform/store/file_codes.h"

#include <cerrno>

namespace Platform::Store {

FileFailure MapSystemFailure(int errnum, const FileFailure& fallback) {
  switch (errnum) {
    case EPERM:
    case EACCES:
    case ETXTBSY:
      return Core::kFileAccessDenied;
    case ENOENT:
      return Core::kFileNotFound;
    case ENOMEM:
      return Core::kFileNoMemory;
    case EBUSY:
    case ENODEV:
    case ENOMEDIUM:
      return Core::kDriveNotReady;
    case EEXIST:
      return Core::kFileExists;
    case ENOSPC:
      return Core::kDiskFull;
    case EROFS:
      return Core::kFileReadOnly;
    case EOPNOTSUPP:
      return Core::kFileUnsupported;
    default:
      return fallback;
  }
}

Common::Error MakeSystemError(const FileFailure& fallback, const std::string& path, int errnum,
                              const Common::LineTag& tag) {
  const FileFailure failure = MapSystemFailure(errnum, fallback);
  Common::Error error =
      Common::MakePathError(failure.code, Common::GetMessageText(failure.row), path.c_str(), tag);
  error.AddPosixError(errnum);
  return error;
}

Common::Error MakeFileError(const FileFailure& failure, const std::string& path,
                            const std::string& reason, const Common::LineTag& tag) {
  Common::Error error =
      Common::MakePathError(failure.code, Common::GetMessageText(failure.row), path.c_str(), tag);
  error.SetReason(Common::Error(failure.code, reason.c_str(), tag));
  return error;
}

}  // namespace Platform::Store
