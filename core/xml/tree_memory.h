#pragma once

#include <cstddef>

namespace Core::XmlDetail {

// A piece of the memory of a document, in front of what lies in it.
struct Chunk {
  Chunk* next;        // the one made before
  std::size_t size;   // as a whole
  std::size_t total;  // of this one and those made before
};

inline char* GetMemory(Chunk* chunk) {
  return reinterpret_cast<char*>(chunk + 1);
}

// A piece with room for `size` bytes and usually more, aligned for pointers and numbers, behind
// `former`, which may be null. Pieces grow with the document; large ones are made for huge pages,
// since fresh small ones cost more than what is written to them. Throws std::bad_alloc.
Chunk* MakeChunk(std::size_t size, Chunk* former);
void ReleaseChunk(Chunk* chunk) noexcept;

}  // namespace Core::XmlDetail
