#include <algorithm>
#include <cstring>

#include "tools/objchunk/chunk_archive.h"
#include "tools/objchunk/frame.h"

namespace ChunkTool {
namespace {

constexpr Common::SourceFile kSource{"tools/objchunk/archive_reader"};
constexpr std::size_t kBufferSize = 262144;
static_assert(kBufferSize >= kFrameHeaderSize + kMaxPayload);

[[noreturn]] void ThrowCorrupted(const char* reason, std::uint32_t line) {
  const Common::LineTag tag = kSource.At("ThrowCorrupted", line);
  Common::Error error = Core::MakeFileError(Core::kFileCorrupted, tag);
  error.SetReason(Common::Error(Core::kFileCorrupted.code, reason, tag));
  throw error;
}

[[noreturn]] void ThrowEnd(std::uint32_t line) {
  throw Core::MakeFileError(Core::kEndOfFile, kSource.At("ThrowEnd", line));
}

}  // namespace

ArchiveReader::ArchiveReader(Core::ri_file& file) : file_(file), buffer_(kBufferSize) {
  size_ = file_.GetSize();
  file_.Rewind();
  const unsigned char* const header = Peek(kArchiveHeaderSize);
  if (header == nullptr || std::memcmp(header, kMagic, sizeof(kMagic)) != 0) {
    ThrowCorrupted("It is no archive of objchunk, or one of another version.", 10);
  }
  // The slot that was written last tells more.
  bool found = false;
  for (unsigned int slot = 0; slot < 2; ++slot) {
    CommittedPart part;
    if (!ChunkTool::GetSlot(header + kFirstSlot + slot * kSlotSize, part)) continue;
    if (found && part.size <= committed_.size) continue;
    found = true;
    committed_ = part;
    slot_ = slot;
  }
  if (!found) ThrowCorrupted("The head of the archive is damaged.", 20);
  Skip(kArchiveHeaderSize);
  whole_ = {position_, 0};
}

void ArchiveReader::GoToTail() {
  has_header_ = in_entry_ = in_chunk_ = false;
  data_size_ = 0;
  begin_ = end_ = 0;
  position_ = committed_.size;
  frames_ = committed_.frames;
  whole_ = committed_;
  file_.Seek(static_cast<std::int64_t>(position_));
}

// So many bytes in one piece, or null at the end of the file.
const unsigned char* ArchiveReader::Peek(std::size_t size) {
  while (end_ - begin_ < size) {
    if (begin_ != 0) std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    std::uint64_t count = 0;
    file_.Read(buffer_.data() + end_, buffer_.size() - end_, count);
    if (file_.HasFailed()) throw file_.GetError();
    if (count == 0) return nullptr;
    end_ += static_cast<std::size_t>(count);
  }
  return buffer_.data() + begin_;
}

void ArchiveReader::Skip(std::uint64_t size) {
  if (size > size_ - std::min(position_, size_)) ThrowEnd(10);
  position_ += size;
  if (size <= end_ - begin_) {
    begin_ += static_cast<std::size_t>(size);
    return;
  }
  begin_ = end_ = 0;
  file_.Seek(static_cast<std::int64_t>(position_));
  if (file_.HasFailed()) throw file_.GetError();
}

const FrameHeader* ArchiveReader::PeekFrame() {
  if (has_header_) return &header_;
  const unsigned char* const place = Peek(kFrameHeaderSize);
  if (place == nullptr) return nullptr;
  if (!GetFrameHeader(place, header_, frames_)) {
    // Behind the committed part lies what a save was about to write when it died.
    if (position_ >= committed_.size) return nullptr;
    ThrowCorrupted("The archive is damaged, and what lies behind can't be found.", 30);
  }
  has_header_ = true;
  return &header_;
}

const unsigned char* ArchiveReader::TakePayload() {
  const FrameHeader header = header_;
  const unsigned char* const frame = Peek(kFrameHeaderSize + header.size);
  if (frame == nullptr) ThrowEnd(20);
  begin_ += kFrameHeaderSize + header.size;
  position_ += kFrameHeaderSize + header.size;
  has_header_ = false;
  ++frames_;
  const unsigned char* const payload = frame + kFrameHeaderSize;
  if (Hash(payload, header.size) != header.hash) ThrowCorrupted("The archive is damaged.", 40);
  return payload;
}

void ArchiveReader::SkipPayload() {
  Skip(kFrameHeaderSize + header_.size);
  has_header_ = false;
  ++frames_;
}

void ArchiveReader::EndEntry() {
  TakePayload();
  in_entry_ = in_chunk_ = false;
  whole_ = {position_, frames_};
}

bool ArchiveReader::NextEntry(std::string& name) {
  data_size_ = 0;
  in_chunk_ = false;
  const FrameHeader* frame = PeekFrame();
  while (frame != nullptr && in_entry_) {
    if (frame->kind == FrameKind::kEnd) {
      EndEntry();
    } else if (frame->kind == FrameKind::kChunk || frame->kind == FrameKind::kMore) {
      SkipPayload();
    } else {
      ThrowCorrupted("An entry of the archive has no end.", 50);
    }
    frame = PeekFrame();
  }
  if (frame == nullptr) return false;
  if (frame->kind != FrameKind::kEntry || frame->size == 0 || frame->size > kMaxName) {
    ThrowCorrupted("An entry of the archive has no beginning.", 60);
  }
  const std::size_t size = frame->size;
  name.assign(reinterpret_cast<const char*>(TakePayload()), size);
  in_entry_ = true;
  return true;
}

bool ArchiveReader::NextChunk(std::uint8_t& type) {
  if (!in_entry_) return false;
  SkipChunk();
  const FrameHeader* const frame = PeekFrame();
  if (frame == nullptr) ThrowEnd(30);
  if (frame->kind == FrameKind::kEnd) {
    EndEntry();
    return false;
  }
  if (frame->kind != FrameKind::kChunk) {
    ThrowCorrupted("An entry of the archive has no end.", 70);
  }
  type = frame->type;
  in_chunk_ = true;
  data_size_ = frame->size;
  data_ = TakePayload();
  return true;
}

std::size_t ArchiveReader::Read(void* buffer, std::size_t size) {
  std::size_t count = 0;
  while (count < size) {
    if (data_size_ == 0) {
      if (!in_chunk_) break;
      const FrameHeader* const frame = PeekFrame();
      if (frame == nullptr) ThrowEnd(40);
      if (frame->kind != FrameKind::kMore) {
        in_chunk_ = false;
        break;
      }
      const std::size_t payload = frame->size;
      data_ = TakePayload();
      data_size_ = payload;
      continue;
    }
    const std::size_t piece = std::min(size - count, data_size_);
    std::memcpy(static_cast<unsigned char*>(buffer) + count, data_, piece);
    data_ += piece;
    data_size_ -= piece;
    count += piece;
  }
  return count;
}

std::uint64_t ArchiveReader::SkipChunk() {
  std::uint64_t size = data_size_;
  data_size_ = 0;
  while (in_chunk_) {
    const FrameHeader* const frame = PeekFrame();
    if (frame == nullptr) ThrowEnd(50);
    if (frame->kind != FrameKind::kMore) break;
    size += frame->size;
    SkipPayload();
  }
  in_chunk_ = false;
  return size;
}

}  // namespace ChunkTool
