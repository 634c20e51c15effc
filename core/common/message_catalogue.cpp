#include "core/common/message_catalogue.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "core/common/message_table_internal.h"
#include "core/common/number_text.h"
#include "core/common/resource_api.h"
#include "core/common/string.h"

namespace Common::Internal {

namespace {

struct Catalogue {
  std::unique_ptr<unsigned char[]> block;
  std::size_t size;
  Catalogue* next;
};

constinit std::atomic<bool> is_started{false};
constinit std::atomic<ResourceApi::ModuleHandle*> store{nullptr};
// Grows at its front; nothing leaves it before process exit.
constinit std::atomic<Catalogue*> catalogues{nullptr};

// Registers a handler with the first call for its flag.
void CallAtExitOnce(std::atomic<bool>& is_registered, void (*handler)()) {
  if (!is_registered.exchange(true)) std::atexit(handler);
}

ResourceApi::ModuleHandle* OpenStore() {
  ResourceApi::ModuleHandle* present = store.load(std::memory_order_acquire);
  if (present != nullptr) return present;
  // Gives the library the occasion to make itself ready; it has no store of ours.
  ResourceApi::OpenModule(nullptr);
  present = store.load(std::memory_order_acquire);
  if (present != nullptr) return present;
  ResourceApi::ModuleHandle* opened = ResourceApi::OpenModule(GetProgramPathWide().c_str());
  if (opened == nullptr) return nullptr;
  if (!store.compare_exchange_strong(present, opened, std::memory_order_acq_rel)) {
    ResourceApi::CloseModule(opened);
    return present;
  }
  static constinit std::atomic<bool> is_registered{false};
  CallAtExitOnce(is_registered, [] { ResourceApi::CloseModule(store.exchange(nullptr)); });
  return opened;
}

void FreeCatalogues() {
  Catalogue* catalogue = catalogues.exchange(nullptr);
  SetCurrentMessageTable(nullptr);
  while (catalogue != nullptr) {
    const std::unique_ptr<Catalogue> last(catalogue);
    catalogue = last->next;
  }
}

// Null for a catalogue that isn't there yet.
const Catalogue* FindEqual(const unsigned char* block, std::size_t size) {
  const Catalogue* catalogue = catalogues.load(std::memory_order_acquire);
  while (catalogue != nullptr &&
         (catalogue->size != size || std::memcmp(catalogue->block.get(), block, size) != 0)) {
    catalogue = catalogue->next;
  }
  return catalogue;
}

// The block to put in force, null for the built-in table.
const unsigned char* LoadBlock() {
  unsigned int size = 0;
  std::unique_ptr<unsigned char[]> block =
      ResourceApi::LoadFile(OpenStore(), kCatalogueFile, nullptr, &size);
  if (block == nullptr || !IsCatalogue(block.get(), size)) return nullptr;
  // A process that changes to and fro keeps one catalogue for each language.
  if (const Catalogue* const former = FindEqual(block.get(), size)) return former->block.get();
  const unsigned char* const text = block.get();
  auto* const added = new Catalogue{std::move(block), size, catalogues.load()};
  while (!catalogues.compare_exchange_weak(added->next, added, std::memory_order_acq_rel)) {
  }
  static constinit std::atomic<bool> is_registered{false};
  CallAtExitOnce(is_registered, &FreeCatalogues);
  return text;
}

// The table loader: runs at subscription and at each change of the language.
void LoadCatalogue() {
  const int kept = errno;
  const unsigned char* block = nullptr;
  try {
    block = LoadBlock();
  } catch (const std::bad_alloc&) {
    // English it is.
  }
  SetCurrentMessageTable(block);
  errno = kept;
}

std::uint32_t Read32(const unsigned char* at) {
  std::uint32_t value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// The place behind the last unit at or before which rows of that width can end; 0 if there is none.
template <class Unit>
std::size_t FindLastEnd(const unsigned char* block, std::size_t size) {
  std::size_t end = size - size % sizeof(Unit);
  for (; end != 0; end -= sizeof(Unit)) {
    Unit unit;
    std::memcpy(&unit, block + end - sizeof(Unit), sizeof unit);
    if (unit == 0) return end;
  }
  return 0;
}

}  // namespace

void StartCatalogues() noexcept {
  // Set first: the library may ask for a text itself.
  if (is_started.exchange(true)) return;
  const int kept = errno;
  ResourceApi::SubscribeLanguageEvents(&LoadCatalogue);
  std::atexit([] { ResourceApi::UnsubscribeLanguageEvents(&LoadCatalogue); });
  errno = kept;
}

bool IsCatalogue(const unsigned char* block, std::size_t size) noexcept {
  constexpr std::size_t kSlots = 8;
  if (size < kSlots || Read32(block) != size || Read32(block + 4) != kMessageRowCount) return false;
  if (size - kSlots < std::size_t{4} * kMessageRowCount) return false;
  const std::size_t wide_end = FindLastEnd<char16_t>(block, size);
  const std::size_t ansi_end = FindLastEnd<char>(block, size);
  for (std::uint32_t row = 0; row < kMessageRowCount; ++row) {
    const std::size_t slot = kSlots + std::size_t{4} * row;
    const std::size_t text = slot + Read32(block + slot);
    const bool is_ansi = IsAnsiMessageRow(row);
    if (!is_ansi && text % sizeof(char16_t) != 0) return false;
    if (text >= (is_ansi ? ansi_end : wide_end)) return false;
  }
  return true;
}

}  // namespace Common::Internal
