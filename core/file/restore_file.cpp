#include "core/file/restore_file.h"

#include <algorithm>
#include <string>

#include "core/common/string.h"
#include "core/common/unix/safe_assert.h"
#include "core/file/packed_number.h"

namespace Core::RestoreHelpers {
namespace {

constexpr Common::SourceFile kSource{"core/file/restore_file"};
constexpr std::uint32_t kUnknown = ~std::uint32_t{0};
constexpr std::uint64_t kNoLimit = 0x7FFFFFFFFFFFFFFF;

Common::Error MakeCanceled(std::uint32_t line) {
  return MakeFileError(kFileCanceled, kSource.At("IsCanceled", line));
}

}  // namespace

Common::Error CommonRestoreChunkProcessor::DoRestore(const restore_record& request) {
  if (request.source == nullptr) {
    target_->Fail(MakeFileError(kFileReadFailure, kSource.At("DoRestore", 10)));
    return target_->error;
  }
  Common::Error error = ReadChunks(request);
  // A stream without a description is a file, also when it was empty.
  if (!error.IsFailure() && target_->type == RestoreTarget::kNothing) {
    target_->MayCreateFile();
    error = target_->error;
  }
  if (!error.IsFailure()) error = FinishItem(request);
  // What isn't whole is removed.
  target_->Fail(error);
  return error;
}

Common::Error CommonRestoreChunkProcessor::ReadChunks(const restore_record& request) {
  while (!target_->error.IsFailure()) {
    if (IsCanceled(request.callback)) return MakeCanceled(10);
    std::uint8_t type = 0;
    const std::unique_ptr<i_file> chunk = request.source->NextChunk(type);
    if (chunk == nullptr) break;
    const Common::Error error = ProcessChunk(type, *chunk, request);
    if (error.IsFailure()) return error;
  }
  return target_->error;
}

// Every setter does nothing while an error stands.
Common::Error CommonRestoreChunkProcessor::FinishItem(const restore_record& request) {
  if (attributes_ != kUnknown) {
    target_->directory->SetDOSAttributes(target_->path, attributes_);
    target_->TakeDirectoryError(kFileUnsupported.code);
  }
  if (time1_ != 0 || time2_ != 0) SetTimes(time1_, time2_, 0);
  if (target_->error.IsFailure()) return target_->error;

  if (description_.size >= kDescriptionSize) SetOwnerAndMode();
  if (target_->error.IsFailure()) {
    Common::Error security =
        MakeFileError(kFileSecurityFailure, kSource.At("Ask4SecurityWriting", 10));
    security.SetReason(target_->error);
    switch (Ask4SecurityWriting(security, request.callback)) {
      case BackupCallback::kGiveUp:
        return security;
      case BackupCallback::kForgive:
        // Otherwise the item would be removed as a half-made one.
        target_->error = {};
        return {};
      case 1:
        SAFE_ASSERT(false);
        break;
      default:
        break;
    }
  }
  SendFileFlags();
  return target_->error;
}

void CommonRestoreChunkProcessor::SetTimes(std::uint64_t first, std::uint64_t second,
                                           std::uint64_t third) {
  if (target_->error.IsFailure()) return;
  const std::uint64_t modified = first != 0 ? first : second;
  const std::uint64_t accessed = third != 0 ? third : modified;
  if (target_->FileTarget != nullptr) {
    file_times_record times{{kSetFileTimes}, modified, 0, accessed};
    target_->FileTarget->IOCTL(times);
    target_->Fail(target_->FileTarget->GetError());
  } else {
    entry_times_record times{{kSetEntryTimes}, target_->path, modified, 0, accessed};
    target_->directory->IOCTL(times);
    target_->TakeDirectoryError(kFileUnsupported.code);
  }
}

void CommonRestoreChunkProcessor::SetOwnerAndMode() {
  target_->directory->SetUnixOwner(target_->path, description_.owner, description_.group);
  target_->TakeDirectoryError(kFileUnsupported.code);
  // An unknown mode as a mode would give everybody every right.
  if (target_->error.IsFailure() || description_.mode == kUnknown) return;
  target_->directory->SetUnixPermissions(target_->path, description_.mode);
  target_->TakeDirectoryError(kFileUnsupported.code);
}

std::uint32_t CommonRestoreChunkProcessor::Ask4SecurityWriting(const Common::Error& error,
                                                               BackupCallback* callback) {
  if (callback == nullptr) return BackupCallback::kForgive;
  Common::String path;
  if (auto* const directory = dynamic_cast<i_dir*>(target_->directory)) {
    if (const char16_t* const folder = directory->GetPath()) path = folder;
  }
  path += target_->path;
  return callback->AskSecurityWriting(error, path.c_str());
}

// Nobody looks at what comes of it.
void CommonRestoreChunkProcessor::SendFileFlags() {
  if (fileFlags_ == 0 || target_->error.IsFailure()) return;
  if (target_->FileTarget != nullptr) {
    file_flags_record flags{{kSetOpenFileFlags}, fileFlags_};
    target_->FileTarget->IOCTL(flags);
  } else {
    entry_flags_record flags{{kSetFileFlags}, target_->path, fileFlags_};
    target_->directory->IOCTL(flags);
    target_->directory->SetError({});
  }
}

Common::Error CommonRestoreChunkProcessor::ProcessChunk(std::uint8_t type, i_file& chunk,
                                                        const restore_record& request) {
  switch (type) {
    case kAttributesChunk:
      return ReadAttributes(chunk);
    case kWindowsStreamChunk:
    case kDataChunk:
      return ReadStream(type, chunk, request.callback);
    case kReservedChunk:
      if (target_->type != RestoreTarget::kNothing) return {};
      return MakeFileError(kFileUnsupported, kSource.At("ProcessChunk", 10));
    case kTimesChunk:
      return (request.flags & kSkipTimes) != 0 ? Common::Error() : ReadTimes(chunk);
    case kDescriptionChunk:
      return ReadDescription(chunk, request.callback);
    case kFileFlagsChunk: {
      unsigned char content[4];
      Read(chunk, content, sizeof(content));
      if (chunk.HasFailed()) return chunk.GetError();
      fileFlags_ = GetNumber<std::uint32_t>(content);
      return {};
    }
    default:
      return {};
  }
}

Common::Error CommonRestoreChunkProcessor::ReadAttributes(i_file& chunk) {
  unsigned char content[4];
  Read(chunk, content, sizeof(content));
  if (chunk.HasFailed()) return chunk.GetError();
  attributes_ = GetNumber<std::uint32_t>(content);
  if ((attributes_ & kDirectoryAttribute) != 0) target_->MayCreateDir();
  return target_->error;
}

Common::Error CommonRestoreChunkProcessor::ReadStream(std::uint8_t type, i_file& chunk,
                                                      BackupCallback* callback) {
  if (target_->type == RestoreTarget::kNothing && !target_->MayCreateFile()) return target_->error;
  if (target_->FileTarget == nullptr) return {};
  ro_file& file = *target_->FileTarget;
  const Common::Error error = type == kWindowsStreamChunk
                                  ? RestoreWindowsStream(*this, chunk, file, callback)
                                  : RestorePlainStream(chunk, file, kNoLimit, callback);
  if (error.IsFailure()) return error;
  file.Flush();
  return file.GetError();
}

Common::Error CommonRestoreChunkProcessor::ReadTimes(i_file& chunk) {
  unsigned char content[16];
  Read(chunk, content, sizeof(content));
  if (chunk.HasFailed()) return chunk.GetError();
  time1_ = GetNumber<std::uint64_t>(content);
  time2_ = GetNumber<std::uint64_t>(content + 8);
  return {};
}

Common::Error CommonRestoreChunkProcessor::ReadDescription(i_file& chunk,
                                                           BackupCallback* callback) {
  const auto corrupted = [](std::uint32_t line) {
    return MakeFileError(kFileCorrupted, kSource.At("ReadDescription", line));
  };
  unsigned char head[kDescriptionSize];
  Read(chunk, head, sizeof(head));
  if (chunk.HasFailed()) return chunk.GetError();
  description record;
  record.size = GetNumber<std::uint32_t>(head);
  record.type = GetNumber<std::uint32_t>(head + 4);
  record.owner = GetNumber<std::uint32_t>(head + 8);
  record.group = GetNumber<std::uint32_t>(head + 12);
  record.mode = GetNumber<std::uint32_t>(head + 16);
  if (record.size < kDescriptionSize) return corrupted(10);

  // A record may claim 4 GiB: only what a type needs is kept, the rest is read over.
  std::uint32_t left = record.size - kDescriptionSize;
  unsigned char numbers[8] = {};
  Common::String link;
  std::uint32_t wanted = 0;
  if (record.type == kCharacterDeviceEntry || record.type == kBlockDeviceEntry) {
    wanted = sizeof(numbers);
  } else if (record.type == kSymLinkEntry) {
    wanted = 2;
  }
  const std::uint32_t taken = std::min(left, wanted);
  Read(chunk, numbers, taken);
  if (chunk.HasFailed()) return chunk.GetError();
  left -= taken;
  bool whole = taken == wanted;
  if (whole && record.type == kSymLinkEntry) {
    const std::uint32_t length = GetNumber<std::uint16_t>(numbers);
    whole = left >= 2 * (length + 1);
    if (whole) {
      std::string bytes(2 * (length + 1), '\0');
      Read(chunk, bytes.data(), bytes.size());
      if (chunk.HasFailed()) return chunk.GetError();
      left -= static_cast<std::uint32_t>(bytes.size());
      // Ends here whatever stands in the place of the 0.
      link.resize(length);
      const auto* const units = reinterpret_cast<const unsigned char*>(bytes.data());
      for (std::uint32_t i = 0; i < length; ++i) {
        link[i] = static_cast<char16_t>(GetNumber<std::uint16_t>(units + 2 * i));
      }
    }
  }
  const Common::Error error = SkipBytes(chunk, left, callback);
  if (error.IsFailure()) return error;
  if (!whole) return corrupted(20);

  description_ = record;
  switch (record.type) {
    case kRegularEntry:
    case kOtherFileEntry:
      target_->MayCreateFile();
      break;
    case kCharacterDeviceEntry:
    case kBlockDeviceEntry:
      target_->MayCreateNode(static_cast<entry_type>(record.type), record.mode,
                             GetNumber<std::uint32_t>(numbers),
                             GetNumber<std::uint32_t>(numbers + 4));
      break;
    case kFifoEntry:
    case kSocketEntry:
      target_->MayCreateNode(static_cast<entry_type>(record.type), record.mode, 0, 0);
      break;
    case kSymLinkEntry:
      target_->MayCreateLink(link.c_str());
      break;
    case kDirEntry:
      target_->MayCreateDir();
      break;
    default:
      SAFE_ASSERT_NOT_REACHED("What type is it? You shall create this item.");
      if (target_->type == RestoreTarget::kNothing) target_->MayCreateFile();
      break;
  }
  return target_->error;
}

Common::Error CommonRestoreChunkProcessor::ProcessWinntStream(i_file&, const stream_header&,
                                                              BackupCallback*) {
  return MakeFileError(kFileUnsupported, kSource.At("ProcessWinntStream", 10));
}

}  // namespace Core::RestoreHelpers
