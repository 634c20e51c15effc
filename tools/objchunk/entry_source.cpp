#include "core/file/memory_file.h"
#include "tools/objchunk/chunk_archive.h"

namespace ChunkTool {
namespace {

class ArchivedChunk final : public Core::i_file {
 public:
  explicit ArchivedChunk(ArchiveReader& reader) : reader_(reader) {}

  void Read(void* buffer, std::uint64_t size, std::uint64_t& count) override {
    count = 0;
    if (HasFailed()) return;
    try {
      count = reader_.Read(buffer, static_cast<std::size_t>(size));
    } catch (const Common::Error& error) {
      SetError(error);
    }
  }

 private:
  ArchiveReader& reader_;
};

}  // namespace

std::unique_ptr<Core::i_file> EntrySource::NextChunk(std::uint8_t& type) {
  try {
    if (!reader_.NextChunk(type)) return nullptr;
  } catch (const Common::Error& error) {
    return MakeFailedChunk(type, error);
  }
  return std::make_unique<ArchivedChunk>(reader_);
}

std::unique_ptr<Core::i_file> EntrySource::MakeFailedChunk(std::uint8_t& type,
                                                           const Common::Error& error) {
  // Its bytes are read before anything is made of them.
  type = Core::kAttributesChunk;
  auto chunk = std::make_unique<Core::MemoryFile>(nullptr, 0);
  chunk->SetError(error);
  return chunk;
}

}  // namespace ChunkTool
