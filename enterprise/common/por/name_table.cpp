#include "enterprise/common/por/name_table.h"

#include <atomic>
#include <memory>
#include <string>

namespace Por::Detail {
namespace {

constexpr std::size_t kLongest = 64;
constexpr std::size_t kSlotBits = 12;
constexpr std::size_t kSlots = std::size_t{1} << kSlotBits;
constexpr std::size_t kFullAt = kSlots / 2;
// So many slots are looked at for a name; one that finds no place there has none.
constexpr std::size_t kReach = 16;

struct Entry {
  std::size_t size;
  unsigned char wide[2 * kLongest];  // the first `size` bytes count
  char text[kLongest + 1];
  KnownName known;
};

// Slots go from empty to an entry and never back.
constinit std::atomic<const Entry*> slots[kSlots];
constinit std::atomic<std::size_t> used{0};

std::uint64_t Load(const unsigned char* bytes) {
  std::uint64_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// Up to eight bytes, an even number.
std::uint64_t LoadShort(const unsigned char* bytes, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < size; i += 2) {
    std::uint16_t unit;
    std::memcpy(&unit, bytes + i, sizeof unit);
    value = value << 16 | unit;
  }
  return value;
}

// The length and the two ends of the text, which tell most names apart, by multiplication with the
// odd number next to 2^64 divided by the golden ratio (Knuth, The Art of Computer
// Programming, 6.4).
std::size_t Hash(const unsigned char* bytes, std::size_t size) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15u;
  std::uint64_t hash = size;
  if (size < 8) {
    hash += LoadShort(bytes, size);
  } else {
    hash += Load(bytes) * kFactor ^ Load(bytes + size - 8);
  }
  hash ^= hash >> 32;
  return static_cast<std::size_t>(hash * kFactor >> (64 - kSlotBits));
}

bool IsSame(const unsigned char* a, const unsigned char* b, std::size_t size) {
  if (size < 8) return LoadShort(a, size) == LoadShort(b, size);
  for (std::size_t i = 0; i + 8 < size; i += 8) {
    if (Load(a + i) != Load(b + i)) return false;
  }
  return Load(a + size - 8) == Load(b + size - 8);
}

bool IsAscii(const unsigned char* bytes, std::size_t size) {
  for (std::size_t i = 0; i < size; i += 2) {
    if (bytes[i + 1] != 0 || bytes[i] == 0 || bytes[i] >= 0x80) return false;
  }
  return true;
}

std::unique_ptr<const Entry> MakeEntry(const unsigned char* bytes, std::size_t size) {
  auto entry = std::make_unique<Entry>();
  entry->size = size;
  std::memcpy(entry->wide, bytes, size);
  const std::size_t length = size / 2;
  std::uint64_t order = 0;
  for (std::size_t i = 0; i < length; ++i) entry->text[i] = static_cast<char>(bytes[2 * i]);
  for (std::size_t i = 0; i < 8; ++i) order = order << 8 | (i < length ? bytes[2 * i] : 0u);
  entry->known.name = Name::FromImmortal(entry->text);
  entry->known.order = order;
  return entry;
}

}  // namespace

const KnownName* FindName(const unsigned char* bytes, std::size_t size) {
  if (size > 2 * kLongest || size % 2 != 0) return nullptr;
  std::unique_ptr<const Entry> made;
  const std::size_t first = Hash(bytes, size);
  for (std::size_t i = 0; i < kReach; ++i) {
    const std::size_t at = (first + i) % kSlots;
    const Entry* entry = slots[at].load(std::memory_order_acquire);
    if (entry == nullptr) {
      // Threads that get here together may make the table a few names fuller than full.
      if (used.load(std::memory_order_relaxed) >= kFullAt || !IsAscii(bytes, size)) return nullptr;
      if (made == nullptr) made = MakeEntry(bytes, size);
      if (slots[at].compare_exchange_strong(entry, made.get(), std::memory_order_acq_rel)) {
        used.fetch_add(1, std::memory_order_relaxed);
        return &made.release()->known;
      }
      // Another thread was first here; `entry` is what it put in.
    }
    if (entry->size == size && IsSame(entry->wide, bytes, size)) return &entry->known;
  }
  return nullptr;
}

}  // namespace Por::Detail
