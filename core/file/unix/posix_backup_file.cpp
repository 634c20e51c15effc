#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "core/file/backup.h"
#include "core/file/packed_number.h"
#include "core/file/unix/posix_backup.h"
#include "core/file/unix/posix_dir.h"
#include "core/file/unix/posix_error.h"

namespace Core {
namespace {

constexpr Common::SourceFile kSource{"core/file/unix/posix_backup_file"};

bool IsFile(std::uint32_t type) {
  return type == kRegularEntry || type == kOtherFileEntry;
}

// The names one behind the other, each with its 0. Empty when they can't be had whole.
std::string ListAttributes(const std::string& path) {
  const ssize_t size = ::llistxattr(path.c_str(), nullptr, 0);
  if (size <= 0) return {};
  std::string names(static_cast<std::size_t>(size), '\0');
  if (::llistxattr(path.c_str(), names.data(), names.size()) != size) return {};
  return names;
}

Common::Error BackupAttribute(BackupChunk& chunk, const std::string& path, const char* name) {
  const auto failed = [&](std::uint32_t line) {
    return MakePosixError(kFileReadFailure, errno, kSource.At("BackupAttribute", line),
                          path.c_str(), name);
  };
  const ssize_t expected = ::lgetxattr(path.c_str(), name, nullptr, 0);
  if (expected < 0) return failed(10);
  const std::size_t name_size = std::strlen(name) + 1;
  const std::size_t head_size = kAttributeHeadSize + name_size;
  Common::Error error;
  std::unique_ptr<raw_data> buffer =
      TakeBuffer(chunk, head_size + static_cast<std::size_t>(expected), error);
  if (buffer == nullptr) return error;
  unsigned char* const place = buffer->GetBytes();
  // It may have become another one meanwhile. Asked with no room, the system would tell a size and
  // give nothing.
  ssize_t size = 0;
  if (expected != 0) {
    size = ::lgetxattr(path.c_str(), name, place + head_size, static_cast<std::size_t>(expected));
    if (size < 0) return failed(20);
  }
  PutNumber(place, static_cast<std::uint16_t>(name_size));
  PutNumber(place + 2, static_cast<std::uint64_t>(size));
  std::memcpy(place + kAttributeHeadSize, name, name_size);
  buffer->size = head_size + static_cast<std::size_t>(size);
  return WriteBuffer(chunk, std::move(buffer));
}

Common::Error BackupAttributes(BackupChunkTarget& target, const std::string& path) {
  Common::Error error;
  const std::unique_ptr<BackupChunk> chunk = StartChunk(target, kExtendedAttributesChunk, error);
  if (chunk == nullptr) return error;
  const std::string names = ListAttributes(path);
  for (std::size_t at = 0; at < names.size(); at += std::strlen(names.c_str() + at) + 1) {
    error = BackupAttribute(*chunk, path, names.c_str() + at);
    if (error.IsFailure()) return error;
  }
  return {};
}

// A number that nobody can tell is no chunk, and so is one that can't be written: a target that
// fails knows it.
void BackupFlags(BackupChunkTarget& target, std::uint8_t type, const file_object& source,
                 std::uint64_t flags) {
  if (source.HasFailed() || flags == 0) return;
  unsigned char content[4];
  PutNumber(content, static_cast<std::uint32_t>(flags));
  WriteChunk(target, type, content, sizeof(content));
}

Common::Error BackupEntry(posix_dir& directory, i_dir::iterator& entry, bool with_data,
                          const backup_record& request) {
  std::unique_ptr<ri_file> file;
  if (with_data && (request.flags & kSkipData) == 0 && IsFile(entry.GetType())) {
    file = directory.OpenRead(entry, true);
    if (file == nullptr) return directory.GetError();
  }
  if (const Common::Error failure = CommonBackupFile(file.get(), &entry, request);
      failure.IsFailure()) {
    Common::Error error = Common::MakePathAndNameError(
        kFileBackupFailure.code, Common::GetMessageText(kFileBackupFailure.row),
        directory.GetPath(), entry.GetName(), kSource.At("PosixBackupFile", 10));
    error.SetReason(failure);
    return error;
  }
  file.reset();

  const std::string path = directory.Join(entry);
  const std::unique_ptr<i_dir::iterator> again = directory.MakeSelfIterator(path);
  if (again == nullptr) return directory.GetError();
  again->StatFile();
  if (again->HasFailed()) return again->GetError();
  const Common::Error error = BackupAttributes(*request.target, path);
  if (error.IsFailure()) return error;

  const std::uint32_t type = again->GetType();
  if (!IsFile(type) && type != kDirEntry) return {};
  if (const std::unique_ptr<ri_file> opened = directory.OpenRead(*again, true)) {
    inode_flags_record flags{{kGetInodeFlags}, 0};
    opened->IOCTL(flags);
    BackupFlags(*request.target, kInodeFlagsChunk, *opened, flags.flags);
  }
  entry_flags_record flags{{kGetFileFlags}, again->GetName(), 0};
  directory.IOCTL(flags);
  BackupFlags(*request.target, kFileFlagsChunk, directory, flags.flags);
  return {};
}

}  // namespace

Common::Error PosixBackupFile(posix_dir& directory, const backup_record& request) {
  const std::unique_ptr<i_dir::iterator> entry =
      request.path != nullptr ? directory.GetIterator(request.path) : directory.GetSelfIterator();
  if (entry == nullptr) return directory.GetError();
  return BackupEntry(directory, *entry, request.path != nullptr, request);
}

Common::Error PosixBackupEntry(posix_dir& directory, i_dir::iterator& entry,
                               const backup_record& request) {
  return BackupEntry(directory, entry, true, request);
}

}  // namespace Core
