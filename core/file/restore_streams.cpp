#include <algorithm>
#include <limits>

#include "core/file/packed_number.h"
#include "core/file/restore_file.h"

namespace Core::RestoreHelpers {
namespace {

constexpr Common::SourceFile kSource{"core/file/restore_streams"};
constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();

Common::Error MakeCanceled(std::uint32_t line) {
  return MakeFileError(kFileCanceled, kSource.At("IsCanceled", line));
}
Common::Error MakeCorrupted(std::uint32_t line) {
  return MakeFileError(kFileCorrupted, kSource.At("RestoreWindowsStream", line));
}

// A segment to be written: where it begins and how long it is. Nothing of the chunk behind it has
// been read.
struct segment {
  std::int64_t offset;
  std::int64_t size;
};

// Copies exactly `size` bytes.
Common::Error CopySegment(i_file& chunk, ro_file& file, std::uint64_t size,
                          BackupCallback* callback) {
  unsigned char block[kBackupBlockSize];
  while (size != 0) {
    if (IsCanceled(callback)) return MakeCanceled(10);
    const std::uint64_t count = std::min(size, kBackupBlockSize);
    Read(chunk, block, count);
    if (chunk.HasFailed()) return chunk.GetError();
    if (IsCanceled(callback)) return MakeCanceled(20);
    Write(file, block, count);
    if (file.HasFailed()) return file.GetError();
    if (callback != nullptr) callback->OnProgress(count);
    size -= count;
  }
  return {};
}

}  // namespace

Common::Error SkipBytes(i_file& chunk, std::uint64_t size, BackupCallback* callback) {
  unsigned char block[kBackupBlockSize];
  while (size != 0) {
    if (IsCanceled(callback)) return MakeCanceled(30);
    const std::uint64_t count = std::min(size, kBackupBlockSize);
    Read(chunk, block, count);
    if (chunk.HasFailed()) return chunk.GetError();
    size -= count;
  }
  return {};
}

Common::Error RestorePlainStream(i_file& chunk, ro_file& file, std::uint64_t limit,
                                 BackupCallback* callback) {
  unsigned char block[kBackupBlockSize];
  std::uint64_t total = 0;
  do {
    if (IsCanceled(callback)) return MakeCanceled(40);
    std::uint64_t count = 0;
    chunk.Read(block, std::min(kBackupBlockSize, limit - total), count);
    if (chunk.HasFailed()) return chunk.GetError();
    if (count == 0) return {};
    if (IsCanceled(callback)) return MakeCanceled(50);
    Write(file, block, count);
    if (file.HasFailed()) return file.GetError();
    if (callback != nullptr) callback->OnProgress(count);
    total += count;
  } while (total < limit);
  return {};
}

Common::Error RestoreWindowsStream(RestoreChunkProcessor& processor, i_file& chunk, ro_file& file,
                                   BackupCallback* callback) {
  std::int64_t written = 0;  // where the file stands
  std::int64_t end = 0;      // of the last segment
  for (;;) {
    unsigned char head[kStreamHeaderSize];
    std::uint64_t count = 0;
    chunk.Read(head, sizeof(head), count);
    if (chunk.HasFailed()) return chunk.GetError();
    if (count == 0) break;
    if (count != sizeof(head)) {
      return MakeFileError(kEndOfFile, kSource.At("RestoreWindowsStream", 10));
    }
    const stream_header header{GetNumber<std::uint32_t>(head), GetNumber<std::uint32_t>(head + 4),
                               static_cast<std::int64_t>(GetNumber<std::uint64_t>(head + 8)),
                               GetNumber<std::uint32_t>(head + 16)};

    Common::Error error = processor.ProcessWinntStream(chunk, header, callback);
    if (!error.IsFailure()) continue;
    if (error.GetCode() != kFileUnsupported.code) return error;

    segment part{0, header.size};
    if (header.id == kSparseStream && header.name_size == 0) {
      if (header.size >= 0 && header.size < 8) return MakeCorrupted(20);
      unsigned char offset[8];
      Read(chunk, offset, sizeof(offset));
      if (chunk.HasFailed()) return chunk.GetError();
      if (header.size < 0) return MakeCorrupted(30);
      part = {static_cast<std::int64_t>(GetNumber<std::uint64_t>(offset)), header.size - 8};
    } else if (header.id != kDataStream || header.name_size != 0) {
      const std::int64_t name = header.name_size;
      if (header.size < -name || header.size > kLargest - name) return MakeCorrupted(40);
      error = SkipBytes(chunk, static_cast<std::uint64_t>(header.size + name), callback);
      if (error.IsFailure()) return error;
      continue;
    }

    if (part.offset < end || part.size < 0 || part.size > kLargest - part.offset) {
      return MakeCorrupted(50);
    }
    end = part.offset + part.size;
    if (part.size == 0) continue;
    if (written < part.offset) {
      file.SeekCurrent(part.offset - written);
      if (file.HasFailed()) return file.GetError();
    }
    error = CopySegment(chunk, file, static_cast<std::uint64_t>(part.size), callback);
    if (error.IsFailure()) return error;
    written = end;
  }
  if (written >= end) return {};
  // The last segment was an empty one: its place is the file's length.
  file.SeekCurrent(end - written - 1);
  if (file.HasFailed()) return file.GetError();
  Write(file, "", 1);
  return file.GetError();
}

}  // namespace Core::RestoreHelpers
