#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>

#include "core/file/backup.h"
#include "core/file/packed_number.h"

namespace Core {
namespace {

constexpr Common::SourceFile kSource{"core/file/backup_file"};
constexpr std::uint32_t kUnknown = ~std::uint32_t{0};

std::uint32_t GetAttributes(i_dir::iterator& entry) {
  const std::uint32_t attributes = entry.GetDOSAttributes();
  if (attributes != kUnknown) return attributes;
  return entry.GetType() >= kDirEntry ? kDirectoryAttribute : 0;
}

bool IsDevice(std::uint32_t type) {
  return type == kCharacterDeviceEntry || type == kBlockDeviceEntry;
}

Common::Error BackupAttributes(std::uint32_t attributes, BackupChunkTarget& target) {
  unsigned char content[4];
  PutNumber(content, attributes);
  return WriteChunk(target, kAttributesChunk, content, sizeof(content));
}

Common::Error BackupData(i_file& file, const backup_record& request) {
  Common::Error error;
  const std::unique_ptr<BackupChunk> chunk = StartChunk(*request.target, kDataChunk, error);
  return chunk == nullptr ? error : BackupPlainStream(file, *chunk, request);
}

Common::Error BackupTimes(i_dir::iterator& entry, BackupChunkTarget& target) {
  const std::uint64_t modified = entry.GetModifyTime();
  const std::uint64_t created = entry.GetCreateTime();
  if (modified == 0 && created == 0) return {};
  unsigned char content[16];
  PutNumber(content, modified);
  PutNumber(content + 8, created);
  return WriteChunk(target, kTimesChunk, content, sizeof(content));
}

Common::Error BackupDescription(i_dir::iterator& entry, BackupChunkTarget& target) {
  const std::uint32_t type = entry.GetType();
  const std::uint32_t mode = entry.GetPermissions();
  const bool special = type >= kCharacterDeviceEntry && type <= kSymLinkEntry;
  if (!special && mode == kUnknown) return {};

  std::u16string_view link;
  std::uint32_t size = kDescriptionSize;
  if (IsDevice(type)) {
    size = kDeviceDescriptionSize;
  } else if (type == kSymLinkEntry) {
    const char16_t* const text = entry.GetLinkTarget();
    if (text != nullptr) link = text;
    if (text == nullptr || link.size() > std::numeric_limits<std::uint16_t>::max()) {
      if (entry.HasFailed()) return entry.GetError();
      return MakeFileError(kFileReadFailure, kSource.At("BackupDescription", 10));
    }
    size = kLinkDescriptionSize + 2 * static_cast<std::uint32_t>(link.size());
  }

  Common::Error error;
  const std::unique_ptr<BackupChunk> chunk = StartChunk(target, kDescriptionChunk, error);
  if (chunk == nullptr) return error;
  std::unique_ptr<raw_data> buffer = TakeBuffer(*chunk, size, error);
  if (buffer == nullptr) return error;
  unsigned char* const content = buffer->GetBytes();
  PutNumber(content, size);
  PutNumber(content + 4, type);
  PutNumber(content + 8, entry.GetOwner());
  PutNumber(content + 12, entry.GetGroup());
  PutNumber(content + 16, mode);
  if (IsDevice(type)) {
    PutNumber(content + 20, entry.GetDeviceMajor());
    PutNumber(content + 24, entry.GetDeviceMinor());
  } else if (type == kSymLinkEntry) {
    PutNumber(content + 20, static_cast<std::uint16_t>(link.size()));
    unsigned char* place = content + 22;
    for (const char16_t unit : link) {
      PutNumber(place, static_cast<std::uint16_t>(unit));
      place += 2;
    }
    PutNumber(place, std::uint16_t{0});
  }
  buffer->size = size;
  return WriteBuffer(*chunk, std::move(buffer));
}

}  // namespace

std::unique_ptr<BackupChunk> StartChunk(BackupChunkTarget& target, std::uint8_t type,
                                        Common::Error& error) {
  std::unique_ptr<BackupChunk> chunk = target.CreateChunk(type);
  if (chunk != nullptr) return chunk;
  error = target.HasFailed() ? target.GetError()
                             : MakeFileError(kFileWriteFailure, kSource.At("StartChunk", 10));
  return nullptr;
}

std::unique_ptr<raw_data> TakeBuffer(BackupChunk& chunk, std::uint64_t size, Common::Error& error) {
  std::unique_ptr<raw_data> buffer = chunk.AllocateBuffer(size);
  if (buffer != nullptr) return buffer;
  error = chunk.HasFailed() ? chunk.GetError()
                            : MakeFileError(kFileNoMemory, kSource.At("TakeBuffer", 10));
  return nullptr;
}

Common::Error WriteBuffer(BackupChunk& chunk, std::unique_ptr<raw_data> buffer) {
  chunk.Write(buffer);
  return chunk.GetError();
}

Common::Error WriteChunk(BackupChunkTarget& target, std::uint8_t type, const void* bytes,
                         std::uint64_t size) {
  Common::Error error;
  const std::unique_ptr<BackupChunk> chunk = StartChunk(target, type, error);
  if (chunk == nullptr) return error;
  std::unique_ptr<raw_data> buffer = TakeBuffer(*chunk, size, error);
  if (buffer == nullptr) return error;
  std::memcpy(buffer->GetBytes(), bytes, size);
  buffer->size = size;
  return WriteBuffer(*chunk, std::move(buffer));
}

Common::Error BackupPlainStream(i_file& file, BackupChunk& chunk, const backup_record& request) {
  const auto canceled = [] {
    return MakeFileError(kFileCanceled, kSource.At("BackupPlainStream", 10));
  };
  std::uint64_t total = 0;
  for (;;) {
    if (IsCanceled(request.callback)) return canceled();
    Common::Error error;
    std::unique_ptr<raw_data> buffer = TakeBuffer(chunk, kBackupBlockSize, error);
    if (buffer == nullptr) return error;
    std::uint64_t count = 0;
    file.Read(buffer->GetBytes(), kBackupBlockSize, count);
    if (file.HasFailed()) return file.GetError();
    if (count == 0) return {};
    if (IsCanceled(request.callback)) return canceled();
    buffer->size = count;
    error = WriteBuffer(chunk, std::move(buffer));
    if (error.IsFailure()) return error;
    total += count;
    if (request.callback != nullptr) request.callback->OnProgress(total);
  }
}

Common::Error CommonBackupFile(i_file* file, i_dir::iterator* entry, const backup_record& request) {
  if (entry == nullptr) {
    return MakeFileError(kFileOpenFailure, kSource.At("CommonBackupFile", 10));
  }
  if (request.target == nullptr) {
    return MakeFileError(kFileWriteFailure, kSource.At("CommonBackupFile", 20));
  }
  const std::uint32_t attributes = GetAttributes(*entry);
  const bool describes = (request.flags & kSkipDescription) == 0;
  Common::Error error;
  if (describes) error = BackupAttributes(attributes, *request.target);
  if (!error.IsFailure() && file != nullptr) error = BackupData(*file, request);
  if (!error.IsFailure() && describes && (attributes & kDirectoryAttribute) == 0) {
    error = BackupTimes(*entry, *request.target);
  }
  if (!error.IsFailure() && describes) error = BackupDescription(*entry, *request.target);
  return error;
}

}  // namespace Core
