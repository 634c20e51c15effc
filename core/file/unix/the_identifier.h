#pragma once

#include <memory>
#include <string_view>

#include "core/include/file/dir.h"

namespace Core {

// The name of an entry, as text and as the file system has it. Clones share one block of memory.
// Threads: clones are independent of each other.
class the_identifier final : public file_identifier {
 public:
  // `payload` is the entry's name in its directory; an empty one is none. Null when memory is out.
  static std::unique_ptr<the_identifier> Create(std::u16string_view name,
                                                std::string_view payload) noexcept;
  ~the_identifier() override;

  std::unique_ptr<file_identifier> Clone() const noexcept override;

  const char16_t* GetName() const noexcept;
  // Null for none.
  const char* GetPayload() const noexcept;

 private:
  struct block;

  // Takes over a reference.
  explicit the_identifier(block& shared) noexcept : block_(&shared) {}
  static void AddReference(block& shared) noexcept;
  static void Release(block& shared) noexcept;
  // Takes over a reference also when memory is out.
  static std::unique_ptr<the_identifier> Wrap(block& shared) noexcept;

  // Of all without name and payload.
  static block empty_;

  block* const block_;
};

}  // namespace Core
