#include <linux/limits.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "core/common/string.h"
#include "core/file/packed_number.h"
#include "core/file/restore_file.h"
#include "core/file/unix/posix_backup.h"
#include "core/file/unix/posix_dir.h"
#include "core/file/unix/posix_error.h"
#include "core/file/unix/posix_file.h"

namespace Core {
namespace {

constexpr Common::SourceFile kSource{"core/file/unix/posix_restore_file"};

// Attributes that mean nothing on another system: where they can't be kept they are not missed.
bool IsDispensable(const std::string& name) {
  return name == "security.selinux" || name == "trusted.pfcache";
}

// Sets extended attributes, too, on regular files.
class PosixRestoreChunkProcessor final : public RestoreHelpers::CommonRestoreChunkProcessor {
 public:
  // The directory is borrowed.
  PosixRestoreChunkProcessor(posix_dir& directory, const char16_t* path)
      : CommonRestoreChunkProcessor(directory, u""), item_(directory.Join(path)) {
    if (const char16_t* const text = directory.GetPath()) directory_ = text;
    if (path != nullptr) name_ = path;
    GetTarget().path = name_.c_str();
  }
  ~PosixRestoreChunkProcessor() override { CloseTarget(); }

  Common::Error ProcessChunk(std::uint8_t type, i_file& chunk,
                             const restore_record& request) override {
    if (directory_.empty()) {
      return MakeFileError(kFileReadFailure, kSource.At("ProcessChunk", 10));
    }
    const Common::Error error = CommonRestoreChunkProcessor::ProcessChunk(type, chunk, request);
    if (error.IsFailure() || type != kExtendedAttributesChunk) return error;
    const auto* const file = dynamic_cast<posix_file*>(GetTarget().FileTarget.get());
    if (file == nullptr) return {};
    return ReadExtendedAttributes(file->GetDescriptor(), chunk, request.callback);
  }

 private:
  Common::Error ReadExtendedAttributes(int descriptor, i_file& chunk, BackupCallback* callback);

  Common::String directory_;
  Common::String name_;
  const std::string item_;  // the whole path, as the file system has it
};

Common::Error PosixRestoreChunkProcessor::ReadExtendedAttributes(int descriptor, i_file& chunk,
                                                                 BackupCallback* callback) {
  for (;;) {
    unsigned char head[kAttributeHeadSize];
    std::uint64_t count = 0;
    chunk.Read(head, sizeof(head), count);
    if (chunk.HasFailed()) return chunk.GetError();
    if (count == 0) return {};
    if (count != sizeof(head)) {
      return MakeFileError(kEndOfFile, kSource.At("ReadExtendedAttributes", 10));
    }
    std::string name(GetNumber<std::uint16_t>(head), '\0');
    const auto size = GetNumber<std::uint64_t>(head + 2);
    Read(chunk, name.data(), name.size());
    if (chunk.HasFailed()) return chunk.GetError();
    name.resize(std::strlen(name.c_str()));

    int failure = E2BIG;
    if (size > XATTR_SIZE_MAX) {
      // No memory for what the system can't take, however large it says that it is.
      const Common::Error error = RestoreHelpers::SkipBytes(chunk, size, callback);
      if (error.IsFailure()) return error;
    } else {
      std::string value(static_cast<std::size_t>(size), '\0');
      Read(chunk, value.data(), value.size());
      if (chunk.HasFailed()) return chunk.GetError();
      failure =
          ::fsetxattr(descriptor, name.c_str(), value.data(), value.size(), 0) == 0 ? 0 : errno;
    }
    if (failure == 0) continue;
    const Common::Error error =
        MakePosixError(kFileWriteFailure, failure, kSource.At("ReadExtendedAttributes", 20),
                       item_.c_str(), name.c_str());
    if (error.GetCode() != kFileUnsupported.code || !IsDispensable(name)) return error;
  }
}

}  // namespace

Common::Error PosixRestoreFile(posix_dir& directory, const restore_record& request) {
  Common::Error result;
  {
    PosixRestoreChunkProcessor processor(directory, request.path);
    result = processor.DoRestore(request);
  }
  directory.SetError({});
  if (!result.IsFailure() || result.GetCode() == kFileRecoverFailure.code) return result;
  Common::Error error = MakeFileError(kFileRecoverFailure, kSource.At("PosixRestoreFile", 10));
  error.SetReason(result);
  return error;
}

}  // namespace Core
