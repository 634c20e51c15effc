#include "core/file/unix/the_identifier.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

namespace Core {

// Behind it stand the name with its 0 and the payload with its 0.
struct the_identifier::block {
  char16_t* GetName() { return reinterpret_cast<char16_t*>(this + 1); }

  std::atomic<std::uint64_t> references;
  const char* payload;
};

// Never freed: its own reference stays. Nothing stands behind it.
constinit the_identifier::block the_identifier::empty_{1, nullptr};

void the_identifier::AddReference(block& shared) noexcept {
  shared.references.fetch_add(1, std::memory_order_relaxed);
}

void the_identifier::Release(block& shared) noexcept {
  if (shared.references.fetch_sub(1, std::memory_order_acq_rel) == 1) ::operator delete(&shared);
}

std::unique_ptr<the_identifier> the_identifier::Wrap(block& shared) noexcept {
  std::unique_ptr<the_identifier> result(new (std::nothrow) the_identifier(shared));
  if (result == nullptr) Release(shared);
  return result;
}

std::unique_ptr<the_identifier> the_identifier::Create(std::u16string_view name,
                                                       std::string_view payload) noexcept {
  if (name.empty() && payload.empty()) {
    AddReference(empty_);
    return Wrap(empty_);
  }
  const std::size_t name_size = (name.size() + 1) * sizeof(char16_t);
  void* const memory = ::operator new(sizeof(block) + name_size + payload.size() + 1, std::nothrow);
  if (memory == nullptr) return nullptr;
  block* const made = new (memory) block{1, nullptr};
  *std::copy(name.begin(), name.end(), made->GetName()) = 0;
  if (!payload.empty()) {
    char* const bytes = reinterpret_cast<char*>(made->GetName()) + name_size;
    *std::copy(payload.begin(), payload.end(), bytes) = 0;
    made->payload = bytes;
  }
  return Wrap(*made);
}

the_identifier::~the_identifier() {
  Release(*block_);
}

std::unique_ptr<file_identifier> the_identifier::Clone() const noexcept {
  AddReference(*block_);
  return Wrap(*block_);
}

const char16_t* the_identifier::GetName() const noexcept {
  return block_ == &empty_ ? u"" : block_->GetName();
}

const char* the_identifier::GetPayload() const noexcept {
  return block_->payload;
}

}  // namespace Core
