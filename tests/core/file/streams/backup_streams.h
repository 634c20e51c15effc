#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/file/backup.h"
#include "core/file/memory_file.h"

// Chunks in memory, and the caller's side of backups and restores.

namespace TestSupport {

using ChunkList = std::vector<std::pair<int, std::string>>;

class ChunkRecorder final : public Core::BackupChunkTarget {
 public:
  std::unique_ptr<Core::BackupChunk> CreateChunk(std::uint8_t type) override {
    chunks.emplace_back(type, std::string());
    return std::make_unique<Chunk>(chunks.back().second);
  }

  ChunkList chunks;

 private:
  class Chunk final : public Core::BackupChunk {
   public:
    explicit Chunk(std::string& content) : content_(content) {}
    // With room of its own in front.
    std::unique_ptr<Core::raw_data> AllocateBuffer(std::uint64_t size) override {
      return std::make_unique<Core::raw_data>(
          std::unique_ptr<unsigned char[]>(new unsigned char[size + 3]), size, 3);
    }
    void Write(std::unique_ptr<Core::raw_data>& holder) override {
      content_.append(reinterpret_cast<const char*>(holder->GetBytes()), holder->size);
    }

   private:
    std::string& content_;
  };
};

class ChunkPlayer final : public Core::RestoreChunkSource {
 public:
  explicit ChunkPlayer(const ChunkList& chunks) : chunks_(chunks) {}
  std::unique_ptr<Core::i_file> NextChunk(std::uint8_t& type) override {
    if (next_ == chunks_.size()) return nullptr;
    const auto& [number, content] = chunks_[next_++];
    type = static_cast<std::uint8_t>(number);
    return std::make_unique<Core::buf_ifile<char>>(content.data(), content.size());
  }

 private:
  const ChunkList& chunks_;
  std::size_t next_ = 0;
};

// Little-endian.
inline std::string Number(std::uint64_t number, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes += static_cast<char>(number >> 8 * i);
  return bytes;
}

struct Watcher final : Core::BackupCallback {
  void OnProgress(std::uint64_t bytes) override { progress.push_back(bytes); }
  bool IsCanceled() override { return asked++ >= patience; }
  std::uint32_t AskSecurityWriting(const Common::Error& error, const char16_t* path) override {
    security = error;
    security_path = path;
    return answer;
  }

  std::vector<std::uint64_t> progress;
  int asked = 0;
  int patience = 1 << 30;
  std::uint32_t answer = kForgive;
  Common::Error security;
  std::u16string security_path;
};

}  // namespace TestSupport
