#pragma once

#include <cstdint>
#include <memory>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "core/file/backup.h"
#include "core/include/file/dir.h"
#include "core/include/file/file.h"

// The other half of core/file/backup.h: one entry of the file system out of its chunks.
//
// What a stream can do: make the one item that the caller names, with any type, owner, mode and
// target of a link, set-user-id files and device nodes included, as far as the process may. It
// can't name another one. Two things reach further: a regular file is opened through a symbolic
// link that is there already, and a directory that is there already is taken as made. Callers who
// don't trust a stream look at what lies under the name before.

namespace Core {

// The item in the making, shared by a processor and its helpers.
struct RestoreTarget : Common::NonCopyable {
  static constexpr std::uint32_t kNothing = ~std::uint32_t{0};

  // Both borrowed; `item` is a name in `place`.
  RestoreTarget(o_dir& place, const char16_t* item) : directory(&place), path(item) {}
  // Closes the file. While an error stands, removes what was made, unless it is a directory.
  ~RestoreTarget();

  // Each makes the item, or finds that this stream has made the same kind already. Another kind is
  // 0x4000D. A directory may exist. `type` changes only with success, so that what was there before
  // is not removed on failure. They tell whether no error stands.
  bool MayCreateDir();
  bool MayCreateFile();
  bool MayCreateNode(entry_type node, std::uint32_t mode, std::uint32_t major_number,
                     std::uint32_t minor_number);
  bool MayCreateLink(const char16_t* link);

  // Moves the directory's error here, so that the directory is clean again. `tolerated` counts as
  // success.
  void TakeDirectoryError(std::uint32_t tolerated = 0);
  // Keeps the first one.
  void Fail(const Common::Error& failure);

  std::uint32_t type = kNothing;  // entry_type of what was made
  o_dir* directory;
  const char16_t* path;
  std::unique_ptr<ro_file> FileTarget;  // of a regular file
  Common::Error error;

 private:
  // Whether nothing has been made. Fails when something else than `wanted` has.
  bool MustCreate(std::uint32_t wanted);
};

namespace RestoreHelpers {

// In front of each segment of a Windows stream: 20 bytes.
struct stream_header {
  std::uint32_t id;
  std::uint32_t attributes;  // not looked at
  std::int64_t size;         // bytes behind the header and the name
  std::uint32_t name_size;   // bytes of a name
};
inline constexpr std::uint64_t kStreamHeaderSize = 20;
inline constexpr std::uint32_t kDataStream = 1;
// The content begins with the offset in the file, 64 bits, which `size` counts.
inline constexpr std::uint32_t kSparseStream = 9;

// Makes an entry from chunks.
class RestoreChunkProcessor : public Common::NonCopyable {
 public:
  virtual ~RestoreChunkProcessor() = default;
  virtual Common::Error ProcessChunk(std::uint8_t type, i_file& chunk,
                                     const restore_record& request) = 0;
  // The whole restore. Its failure is also the target's error, unless that has one.
  virtual Common::Error DoRestore(const restore_record& request) = 0;
  // Takes a segment of a Windows stream, of which the header was read. 0x4000E leaves it to the
  // reader, who has then lost nothing of the chunk.
  virtual Common::Error ProcessWinntStream(i_file& chunk, const stream_header& header,
                                           BackupCallback* callback) = 0;
};

class CommonRestoreChunkProcessor : public RestoreChunkProcessor {
 public:
  // Both are borrowed.
  CommonRestoreChunkProcessor(o_dir& directory, const char16_t* path)
      : target_(std::make_unique<RestoreTarget>(directory, path)) {}

  Common::Error ProcessChunk(std::uint8_t type, i_file& chunk,
                             const restore_record& request) override;
  // Without a source 0x40001.
  Common::Error DoRestore(const restore_record& request) override;
  // 0x4000E.
  Common::Error ProcessWinntStream(i_file& chunk, const stream_header& header,
                                   BackupCallback* callback) override;

 protected:
  RestoreTarget& GetTarget() { return *target_; }
  // Before what the target borrows goes.
  void CloseTarget() { target_.reset(); }

 private:
  struct description {
    std::uint32_t size = 0;
    std::uint32_t type = 0;
    std::uint32_t owner = 0;
    std::uint32_t group = 0;
    std::uint32_t mode = 0;
  };

  Common::Error ReadChunks(const restore_record& request);
  Common::Error ReadAttributes(i_file& chunk);
  Common::Error ReadStream(std::uint8_t type, i_file& chunk, BackupCallback* callback);
  Common::Error ReadTimes(i_file& chunk);
  Common::Error ReadDescription(i_file& chunk, BackupCallback* callback);
  Common::Error FinishItem(const restore_record& request);
  void SetTimes(std::uint64_t first, std::uint64_t second, std::uint64_t third);
  void SetOwnerAndMode();
  std::uint32_t Ask4SecurityWriting(const Common::Error& error, BackupCallback* callback);
  void SendFileFlags();

  std::uint64_t time1_ = 0;
  std::uint64_t time2_ = 0;
  std::uint32_t attributes_ = ~std::uint32_t{0};
  std::uint32_t fileFlags_ = 0;
  description description_;
  std::unique_ptr<RestoreTarget> target_;
};

// Copies the chunk, `limit` bytes at most, to where the file stands. 0x40004 when they don't fit.
Common::Error RestorePlainStream(i_file& chunk, ro_file& file, std::uint64_t limit,
                                 BackupCallback* callback);

// Writes the data and sparse segments of a Windows stream to the file, which stands at its
// beginning; what no segment covers is not written and becomes a hole. Other segments, and those
// with names, are passed over. 0x40002 when the chunk ends too early, 0x4000D when segments overlap
// or have impossible sizes.
Common::Error RestoreWindowsStream(RestoreChunkProcessor& processor, i_file& chunk, ro_file& file,
                                   BackupCallback* callback);

// Reads over so many bytes of the chunk, in blocks. 0x40002 when it has fewer.
Common::Error SkipBytes(i_file& chunk, std::uint64_t size, BackupCallback* callback);

}  // namespace RestoreHelpers

}  // namespace Core
