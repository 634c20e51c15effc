#include <algorithm>
#include <cstring>
#include <new>

#include "tools/objchunk/chunk_archive.h"
#include "tools/objchunk/frame.h"

namespace ChunkTool {
namespace {

constexpr Common::SourceFile kSource{"tools/objchunk/archive_writer"};
// Frames up to this size are gathered, up to the second one.
constexpr std::size_t kSmall = 4096;
constexpr std::size_t kMaxPending = 16384;

}  // namespace

// The frame header of a buffer lies in front of its bytes, and so do the small frames that wait:
// one write for all of it, and the data are not copied.
class ArchiveWriter::Chunk final : public Core::BackupChunk {
 public:
  Chunk(ArchiveWriter& archive, std::uint8_t type) : archive_(archive), type_(type) {}
  ~Chunk() override {
    if (!begun_ && !archive_.HasFailed()) archive_.PutSmall(FrameKind::kChunk, type_, "", 0);
  }

  std::unique_ptr<Core::raw_data> AllocateBuffer(std::uint64_t size) override {
    if (archive_.pending_.size() > kMaxPending) archive_.FlushPending();
    const std::uint64_t room = archive_.pending_.size() + kFrameHeaderSize;
    std::unique_ptr<unsigned char[]> block;
    if (size <= ~std::size_t{0} / 2) block.reset(new (std::nothrow) unsigned char[room + size]);
    if (block == nullptr) {
      Fail(Core::MakeFileError(Core::kFileNoMemory, kSource.At("AllocateBuffer", 10)));
      return nullptr;
    }
    return std::make_unique<Core::raw_data>(std::move(block), size, room);
  }

  void Write(std::unique_ptr<Core::raw_data>& holder) override {
    unsigned char* payload = holder->GetBytes();
    std::uint64_t left = holder->size;
    while (left != 0 && !archive_.HasFailed()) {
      const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(left, kMaxPayload));
      const FrameKind kind = begun_ ? FrameKind::kMore : FrameKind::kChunk;
      begun_ = true;
      if (size <= kSmall) {
        archive_.PutSmall(kind, type_, payload, size);
      } else {
        archive_.PutLarge(kind, type_, *holder, payload, size);
      }
      payload += size;
      left -= size;
    }
    if (archive_.HasFailed()) Fail(archive_.GetError());
  }

 private:
  ArchiveWriter& archive_;
  const std::uint8_t type_;
  bool begun_ = false;
};

ArchiveWriter::ArchiveWriter(Core::rio_file& file) : file_(file) {
  if (file_.GetSize() == 0) {
    MakeHeader();
  } else {
    ArchiveReader reader(file_);
    if (reader.IsCutShort()) {
      const Common::LineTag tag = kSource.At("ArchiveWriter", 10);
      Common::Error error = Core::MakeFileError(Core::kFileCorrupted, tag);
      error.SetReason(Common::Error(Core::kFileCorrupted.code, "The archive is cut short.", tag));
      throw error;
    }
    TakeTail(reader);
    slot_ = 1 - reader.GetSlot();
  }
  ThrowIfFailed();
}

void ArchiveWriter::MakeHeader() {
  unsigned char header[kArchiveHeaderSize] = {};
  std::memcpy(header, kMagic, sizeof(kMagic));
  whole_ = {kArchiveHeaderSize, 0};
  PutSlot(header + kFirstSlot, whole_);
  file_.Rewind();
  WriteToFile(header, sizeof(header));
  slot_ = 1;
}

// Keeps the whole entries of a save that died.
void ArchiveWriter::TakeTail(ArchiveReader& reader) {
  reader.GoToTail();
  try {
    std::string name;
    std::uint8_t type = 0;
    std::vector<unsigned char> block(kMaxPayload);
    while (reader.NextEntry(name)) {
      while (reader.NextChunk(type)) {
        while (reader.Read(block.data(), block.size()) != 0) {
        }
      }
    }
  } catch (const Common::Error&) {
    // A file that can't be read fails below.
  }
  whole_ = reader.GetWholePart();
  flushed_ = whole_.size;
  frames_ = whole_.frames;
  if (reader.GetSize() > whole_.size) {
    cut_ = reader.GetSize() - whole_.size;
    file_.Truncate(whole_.size);
  }
  file_.Seek(static_cast<std::int64_t>(whole_.size));
}

void ArchiveWriter::StartEntry(std::string_view name) {
  PutSmall(FrameKind::kEntry, 0, name.data(), name.size());
  ThrowIfFailed();
}

std::unique_ptr<Core::BackupChunk> ArchiveWriter::CreateChunk(std::uint8_t type) {
  if (HasFailed()) return nullptr;
  return std::make_unique<Chunk>(*this, type);
}

void ArchiveWriter::EndEntry() {
  PutSmall(FrameKind::kEnd, 0, "", 0);
  ThrowIfFailed();
  whole_ = GetPosition();
}

void ArchiveWriter::DropEntry() {
  SetError({});
  file_.SetError({});
  frames_ = whole_.frames;
  if (whole_.size >= flushed_) {
    pending_.resize(static_cast<std::size_t>(whole_.size - flushed_));
  } else {
    pending_.clear();
    flushed_ = whole_.size;
  }
  // Also what a failed write may have left.
  file_.Truncate(flushed_);
  file_.Seek(static_cast<std::int64_t>(flushed_));
  ThrowIfFailed();
}

void ArchiveWriter::Commit() {
  FlushPending();
  file_.Flush();
  unsigned char slot[kSlotSize];
  PutSlot(slot, whole_);
  file_.Seek(static_cast<std::int64_t>(kFirstSlot + slot_ * kSlotSize));
  if (!file_.HasFailed()) Core::Write(file_, slot, sizeof(slot));
  file_.Flush();
  file_.Seek(static_cast<std::int64_t>(flushed_));
  ThrowIfFailed();
  slot_ = 1 - slot_;
}

void ArchiveWriter::FillHeader(unsigned char* place, FrameKind kind, std::uint8_t type,
                               const void* payload, std::size_t size) {
  PutFrameHeader(place, {kind, type, static_cast<std::uint32_t>(size), Hash(payload, size)},
                 frames_++);
}

void ArchiveWriter::PutSmall(FrameKind kind, std::uint8_t type, const void* payload,
                             std::size_t size) {
  unsigned char header[kFrameHeaderSize];
  FillHeader(header, kind, type, payload, size);
  pending_.append(reinterpret_cast<const char*>(header), sizeof(header));
  pending_.append(static_cast<const char*>(payload), size);
  if (pending_.size() > kMaxPending) FlushPending();
}

void ArchiveWriter::PutLarge(FrameKind kind, std::uint8_t type, const Core::raw_data& buffer,
                             unsigned char* payload, std::size_t size) {
  const auto room = static_cast<std::size_t>(payload - buffer.block.get());
  if (room < kFrameHeaderSize + pending_.size()) FlushPending();
  if (HasFailed()) return;
  unsigned char* const header = payload - kFrameHeaderSize;
  FillHeader(header, kind, type, payload, size);
  unsigned char* const begin = header - pending_.size();
  std::memcpy(begin, pending_.data(), pending_.size());
  WriteToFile(begin, pending_.size() + kFrameHeaderSize + size);
  if (!HasFailed()) pending_.clear();
}

void ArchiveWriter::FlushPending() {
  if (pending_.empty()) return;
  WriteToFile(pending_.data(), pending_.size());
  if (!HasFailed()) pending_.clear();
}

void ArchiveWriter::WriteToFile(const void* bytes, std::size_t size) {
  if (HasFailed()) return;
  Core::Write(file_, bytes, size);
  if (file_.HasFailed()) {
    SetError(file_.GetError());
  } else {
    flushed_ += size;
  }
}

void ArchiveWriter::ThrowIfFailed() {
  if (file_.HasFailed()) Fail(file_.GetError());
  if (HasFailed()) throw GetError();
}

}  // namespace ChunkTool
