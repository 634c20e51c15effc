#include "enterprise/common/por/unit_arena.h"

#include <algorithm>
#include <utility>

#include "enterprise/common/por/owned_list.h"

namespace Por::Detail {
namespace {

// Chunks of other sizes are not worth keeping.
constexpr std::size_t kMostKept = std::size_t{256} << 10;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kKeepChunks = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kKeepChunks = false;
#else
constexpr bool kKeepChunks = true;
#endif
#else
constexpr bool kKeepChunks = true;
#endif

// The last chunk that this thread released, of a tree the first one, for the next tree: where one
// tree after the other is read and dropped, all of them lie in the same memory. `closed` once the
// thread ends; trees may die later than that.
struct KeptChunk {
  void* chunk = nullptr;
  std::size_t size = 0;
  bool closed = false;
};
constinit thread_local KeptChunk kept;

struct KeptChunkOwner {
  ~KeptChunkOwner() {
    kept.closed = true;
    ::operator delete(kept.chunk);
    kept = {nullptr, 0, true};
  }
  // Has the destructor run at the end of the thread.
  void Register() const {}
};
thread_local KeptChunkOwner kept_owner;

}  // namespace

constinit thread_local Arena::Chunk* Arena::late_chunks_ = nullptr;

Arena::Arena(std::size_t expected) {
  AddChunk(expected);
}

void Arena::AddChunk(std::size_t size) {
  // A further chunk is half of what the tree has, so that their number stays small.
  const std::size_t total = chunks_ == nullptr ? 0 : chunks_->total;
  const std::size_t wanted = sizeof(Chunk) + std::max({size, std::size_t{240}, total / 2});
  Chunk* chunk;
  if (kept.chunk != nullptr && kept.size >= wanted && kept.size / 4 <= wanted) {
    chunk = new (std::exchange(kept.chunk, nullptr)) Chunk{chunks_, kept.size, total + kept.size};
  } else {
    chunk = new (::operator new(wanted)) Chunk{chunks_, wanted, total + wanted};
  }
  chunks_ = chunk;
  at_ = reinterpret_cast<char*>(chunk + 1);
  end_ = reinterpret_cast<char*>(chunk) + chunk->size;
}

void Arena::Release() noexcept {
  if (!CallWhenNoneWaits(&ReleaseLate)) {
    ReleaseChunks(std::exchange(chunks_, nullptr));
    return;
  }
  while (chunks_ != nullptr) {
    Chunk* const chunk = std::exchange(chunks_, chunks_->next);
    chunk->next = std::exchange(late_chunks_, chunk);
  }
}

void Arena::ReleaseLate() noexcept {
  ReleaseChunks(std::exchange(late_chunks_, nullptr));
}

void Arena::ReleaseChunks(Chunk* chunks) noexcept {
  while (chunks != nullptr) {
    Chunk* const chunk = std::exchange(chunks, chunks->next);
    if (!kKeepChunks || kept.closed || chunk->size > kMostKept) {
      ::operator delete(chunk);
      continue;
    }
    kept_owner.Register();
    ::operator delete(kept.chunk);
    kept.chunk = chunk;
    kept.size = chunk->size;
  }
}

}  // namespace Por::Detail
