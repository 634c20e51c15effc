#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "core/common/error.h"
#include "core/include/file/dir.h"
#include "core/include/file/file.h"

// Backup streams: one entry of the file system as a series of typed chunks. A directory saves and
// makes entries through its IOCTL, with kBackupEntry and kRestoreEntry. Whoever calls provides the
// place where chunks go or come from; this side knows the type and the bytes of each chunk and
// nothing of how they are kept.
//
// All of it runs in the caller's thread. Nothing here throws.

namespace Core {

// The types of chunks. Numbers in chunks are little-endian, one behind the other without padding.
// They are written in the order 1, 4, 5, 6, 7, 8, 10 and read in any, but for what needs the item
// to be there. Types that nobody knows are passed over.
inline constexpr std::uint8_t kAttributesChunk = 1;          // u32 DOS attributes
inline constexpr std::uint8_t kWindowsStreamChunk = 2;       // read only, see restore_file.h
inline constexpr std::uint8_t kReservedChunk = 3;            // not read, but needs the item
inline constexpr std::uint8_t kDataChunk = 4;                // the bytes of a file
inline constexpr std::uint8_t kTimesChunk = 5;               // u64 modify time, u64 create time
inline constexpr std::uint8_t kDescriptionChunk = 6;         // below
inline constexpr std::uint8_t kExtendedAttributesChunk = 7;  // below
inline constexpr std::uint8_t kInodeFlagsChunk = 8;          // u32, written only
inline constexpr std::uint8_t kFileFlagsChunk = 10;          // u32 file flags of another platform

// The bit of the DOS attributes that makes a directory.
inline constexpr std::uint32_t kDirectoryAttribute = 16;

// Data are copied in blocks of so many bytes, with a look at the callback before each.
inline constexpr std::uint64_t kBackupBlockSize = 16384;

// A description: u32 size of the whole record, u32 entry_type, u32 owner, u32 group, u32 mode with
// the bits of the type (what is unknown is all ones); then for devices u32 major, u32 minor; for a
// link u16 number of units, and the target in UTF-16 with its 0.
inline constexpr std::uint32_t kDescriptionSize = 20;
inline constexpr std::uint32_t kDeviceDescriptionSize = 28;
// Plus 2 for each unit of the target.
inline constexpr std::uint32_t kLinkDescriptionSize = 24;

// In front of each extended attribute: u16 bytes of the name with its 0, u64 bytes of the value.
// Both follow. There is no limit to the number of attributes in a chunk.
inline constexpr std::uint64_t kAttributeHeadSize = 10;

// A block that a chunk hands out to be filled.
struct raw_data : Common::NonCopyable {
  raw_data() = default;
  raw_data(std::unique_ptr<unsigned char[]> memory, std::uint64_t bytes, std::uint64_t start)
      : block(std::move(memory)), size(bytes), offset(start) {}
  unsigned char* GetBytes() const { return block.get() + offset; }

  std::unique_ptr<unsigned char[]> block;
  std::uint64_t size = 0;    // bytes in use, from `offset` on
  std::uint64_t offset = 0;  // the room in front is the chunk's own
};

// A chunk that is being written. Its end closes it: what fails then, nobody hears of here, so that
// a target whose chunks fail late tells it by its own means.
class BackupChunk : public virtual file_object {
 public:
  // Room for `size` bytes. Null is a failure; without a sticky error it means that there is no
  // memory.
  virtual std::unique_ptr<raw_data> AllocateBuffer(std::uint64_t size) = 0;
  // Appends a buffer of this chunk, whose `size` has become the number of bytes in it. What is left
  // in the holder is freed by the caller.
  virtual void Write(std::unique_ptr<raw_data>& holder) = 0;
};

// Where the chunks of a backup go.
class BackupChunkTarget : public virtual file_object {
 public:
  // One chunk at a time. Null on failure.
  virtual std::unique_ptr<BackupChunk> CreateChunk(std::uint8_t type) = 0;
};

// Where the chunks of a restore come from.
class RestoreChunkSource {
 public:
  virtual ~RestoreChunkSource() = default;
  // The next chunk, however much was read of the one before, which is gone by then. Null at the
  // end; a source that fails gives a chunk that fails.
  virtual std::unique_ptr<i_file> NextChunk(std::uint8_t& type) = 0;
};

// Looks at a backup or restore while it runs.
class BackupCallback {
 public:
  // Answers of AskSecurityWriting; 1 is none.
  static constexpr std::uint32_t kGiveUp = 0;  // the restore fails with the error
  static constexpr std::uint32_t kForgive = 2;
  static constexpr std::uint32_t kKeepError = 3;  // and any other: the restore goes on, then fails

  virtual ~BackupCallback() = default;
  // Behind each block of data. A backup tells the bytes of the file so far, a restore those of the
  // block.
  virtual void OnProgress(std::uint64_t bytes) = 0;
  // True ends the work with 0x4000F.
  virtual bool IsCanceled() = 0;
  // A restored item could not be given its owner or mode: 0x40023, with what failed as the reason.
  // `path` is the item's.
  virtual std::uint32_t AskSecurityWriting(const Common::Error& error, const char16_t* path) = 0;
};

// Whether the callback, which may be null, ends the work.
inline bool IsCanceled(BackupCallback* callback) {
  return callback != nullptr && callback->IsCanceled();
}

// Writes the chunks 1, 4, 5 and 6 of the entry on which `entry` stands, as far as the flags of the
// request and the kind of the entry want them. `file` holds the data, null for no chunk 4; it is
// read from where it stands. Fails with 0x40007 without an entry, 0x40003 without a target, 0x4000F
// when canceled, and with the errors of files, chunks and target as they stand. A link whose target
// can't be read is 0x40001.
Common::Error CommonBackupFile(i_file* file, i_dir::iterator* entry, const backup_record& request);

// Copies the file, up to its end, into the chunk.
Common::Error BackupPlainStream(i_file& file, BackupChunk& chunk, const backup_record& request);

// Appends the buffer and gives the chunk's error.
Common::Error WriteBuffer(BackupChunk& chunk, std::unique_ptr<raw_data> buffer);
// A whole chunk of the bytes.
Common::Error WriteChunk(BackupChunkTarget& target, std::uint8_t type, const void* bytes,
                         std::uint64_t size);
// A new chunk. Null on failure, with `error` set.
std::unique_ptr<BackupChunk> StartChunk(BackupChunkTarget& target, std::uint8_t type,
                                        Common::Error& error);
// A buffer of the chunk. Null on failure, with `error` set.
std::unique_ptr<raw_data> TakeBuffer(BackupChunk& chunk, std::uint64_t size, Common::Error& error);

}  // namespace Core
