#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "core/file/backup.h"
#include "core/include/file/file.h"

// An archive of entries of the file system, each with its name and the chunks of a backup stream.
// docs/chunk-archive.md has the format.
//
// A save appends; what it has written counts once it is committed. A process that dies in between
// leaves the archive as it was, with a tail behind that the next save takes what is whole from.
// Whatever is read is checked: a frame belongs where it stands and has the bytes that were written.

namespace ChunkTool {

// Bytes of the payload of a frame.
inline constexpr std::size_t kMaxPayload = 65536;
inline constexpr std::size_t kFrameHeaderSize = 24;
inline constexpr std::size_t kArchiveHeaderSize = 64;
// Bytes of an entry's name.
inline constexpr std::size_t kMaxName = 4096;

enum class FrameKind : std::uint8_t {
  kEntry = 1,  // the payload is its name
  kChunk = 2,  // begins a chunk with its first bytes
  kMore = 3,   // of the chunk
  kEnd = 4,    // of the entry
};

struct FrameHeader {
  FrameKind kind = FrameKind::kEnd;
  std::uint8_t type = 0;   // of the chunk
  std::uint32_t size = 0;  // of the payload
  std::uint64_t hash = 0;  // of the payload
};

// The committed part of an archive.
struct CommittedPart {
  std::uint64_t size = 0;    // bytes of the file
  std::uint64_t frames = 0;  // in them
};

// Reads the entries of an archive in their order. Failures are thrown as Common::Error: those of
// the file, and 0x4000D for damage, which doesn't keep anybody from going on to the next entry as
// long as NextEntry doesn't throw.
class ArchiveReader : public Common::NonCopyable {
 public:
  // `file` is borrowed, as long as the reader lives. 0x4000D when it is no archive.
  explicit ArchiveReader(Core::ri_file& file);

  // Goes behind the committed part.
  void GoToTail();
  // Goes to the next entry, over what is left of the one before, unchecked. False at the end of the
  // archive, and at the end of the last whole frame behind its committed part.
  bool NextEntry(std::string& name);
  // The entry's next chunk, over what is left of the one before. False at the entry's end.
  bool NextChunk(std::uint8_t& type);
  // Reads up to `size` bytes of the chunk; 0 at its end.
  std::size_t Read(void* buffer, std::size_t size);
  // Goes over what is left of the chunk without looking at it, and tells how many bytes it was.
  std::uint64_t SkipChunk();

  // The file's bytes.
  std::uint64_t GetSize() const { return size_; }
  const CommittedPart& GetCommitted() const { return committed_; }
  // Which of the two slots of the file tells it.
  unsigned int GetSlot() const { return slot_; }
  // Whether the file ends before the end of its committed part.
  bool IsCutShort() const { return size_ < committed_.size; }
  // Behind the last entry that was read to its end.
  const CommittedPart& GetWholePart() const { return whole_; }

 private:
  const unsigned char* Peek(std::size_t size);
  void Skip(std::uint64_t size);
  // The header of the next frame, which stays; null at the end.
  const FrameHeader* PeekFrame();
  // Past the payload, checked.
  const unsigned char* TakePayload();
  void SkipPayload();
  void EndEntry();

  Core::ri_file& file_;
  std::uint64_t size_ = 0;
  CommittedPart committed_;
  unsigned int slot_ = 0;
  CommittedPart whole_;
  std::vector<unsigned char> buffer_;
  std::size_t begin_ = 0;  // of what is in the buffer and not taken
  std::size_t end_ = 0;
  std::uint64_t position_ = 0;  // in the file, of begin_
  std::uint64_t frames_ = 0;    // taken
  FrameHeader header_;
  bool has_header_ = false;
  bool in_entry_ = false;
  bool in_chunk_ = false;
  const unsigned char* data_ = nullptr;  // what is left of a payload
  std::size_t data_size_ = 0;
};

// Appends entries. Failures of the file are thrown as Common::Error, or stand in the target and the
// chunk where a backup looks for them.
class ArchiveWriter final : public Core::BackupChunkTarget {
 public:
  // An empty file becomes an archive. Throws 0x4000D when the file is none, or is cut short.
  // `file` is borrowed; nobody else may write it.
  explicit ArchiveWriter(Core::rio_file& file);

  // Bytes of an unfinished save that were cut off, because they made no whole entry.
  std::uint64_t GetCutBytes() const { return cut_; }

  // The name: at most kMaxName bytes.
  void StartEntry(std::string_view name);
  std::unique_ptr<Core::BackupChunk> CreateChunk(std::uint8_t type) override;
  void EndEntry();
  // Takes the entry back that was begun.
  void DropEntry();
  // Makes everything up to the last EndEntry durable.
  void Commit();

 private:
  class Chunk;

  void MakeHeader();
  void TakeTail(ArchiveReader& reader);
  CommittedPart GetPosition() const { return {flushed_ + pending_.size(), frames_}; }
  void PutSmall(FrameKind kind, std::uint8_t type, const void* payload, std::size_t size);
  void PutLarge(FrameKind kind, std::uint8_t type, const Core::raw_data& buffer,
                unsigned char* payload, std::size_t size);
  void FillHeader(unsigned char* place, FrameKind kind, std::uint8_t type, const void* payload,
                  std::size_t size);
  void WriteToFile(const void* bytes, std::size_t size);
  void FlushPending();
  void ThrowIfFailed();

  Core::rio_file& file_;
  CommittedPart whole_;        // up to the end of the last entry
  std::uint64_t flushed_ = 0;  // bytes that are in the file
  std::uint64_t frames_ = 0;   // with those that are pending
  std::uint64_t cut_ = 0;
  unsigned int slot_ = 0;  // that the next commit overwrites
  std::string pending_;    // small frames that go out together
};

// The chunks of the entry on which a reader stands, for a restore.
class EntrySource : public Core::RestoreChunkSource {
 public:
  explicit EntrySource(ArchiveReader& reader) : reader_(reader) {}
  // What fails becomes the error of a chunk of which something is read in any case.
  std::unique_ptr<Core::i_file> NextChunk(std::uint8_t& type) override;

 protected:
  ArchiveReader& GetReader() { return reader_; }
  // Such a chunk.
  static std::unique_ptr<Core::i_file> MakeFailedChunk(std::uint8_t& type,
                                                       const Common::Error& error);

 private:
  ArchiveReader& reader_;
};

}  // namespace ChunkTool
