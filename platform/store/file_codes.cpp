#include "platform/store/file_codes.h"

#include <cerrno>

namespace Platform::Store {

FileFailure MapSystemFailure(int errnum, const FileFailure& fallback) {
  switch (errnum) {
    case EPERM:
    case EACCES:
    case ETXTBSY:
      return kAccessFailure;
    case ENOENT:
      return kNotFoundFailure;
    case ENOMEM:
      return kMemoryFailure;
    case EBUSY:
    case ENODEV:
    case ENOMEDIUM:
      return kNotReadyFailure;
    case EEXIST:
      return kExistsFailure;
    case ENOSPC:
      return kDiskFullFailure;
    case EROFS:
      return kReadOnlyFailure;
    case EOPNOTSUPP:
      return kUnsupportedFailure;
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
