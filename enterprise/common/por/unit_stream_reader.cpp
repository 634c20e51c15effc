#include "enterprise/common/por/unit_stream_reader.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "enterprise/common/por/array_value_holder.h"
#include "enterprise/common/por/complex_value_holder.h"
#include "enterprise/common/por/name_table.h"
#include "enterprise/common/por/nil_value_holder.h"
#include "enterprise/common/por/scalar_value_holder.h"
#include "enterprise/common/por/unit_arena.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_stream.h"

namespace Por::Util::UnitStream {
namespace {

static_assert(std::endian::native == std::endian::little, "numbers are read as they lie");

// Deeper trees take the long way: this one recurses.
constexpr unsigned int kDeepest = 32;

// Bytes of nodes for a byte of stream, in sixteenths: what is expected at first and at most, as one
// tree of many nodes must not make those behind it larger. Then it is what trees took lately on
// this thread, since those of one reply or store are alike: room that is not used costs almost as
// much as the rest.
constexpr std::size_t kMostNodeBytes = 7 * 8;
constinit thread_local std::size_t node_bytes = kMostNodeBytes;

// Up at once and slowly down: a further chunk costs more than some room.
void AdaptNodeBytes(std::size_t size, std::size_t taken) {
  const std::size_t now = std::min(taken * 16 / size + 1, kMostNodeBytes);
  node_bytes = std::max(now, node_bytes - node_bytes / 16);
}

// Larger streams may hold large texts and few nodes: their arena grows with what is found.
constexpr std::size_t kMostExpected = 16 << 10;

template <class T>
void Destroy(void* object) {
  static_cast<T*>(object)->~T();
}

void DeleteUnit(void* object) {
  delete static_cast<Construction::Unit*>(object);
}

// Children whose list is not complete yet, one level behind the other.
class Pending {
 public:
  std::size_t GetSize() const { return size_; }
  void* operator[](std::size_t index) const { return items_[index]; }

  void Push(void* item) {
    if (size_ == capacity_) Grow();
    items_[size_++] = item;
  }
  // The items from `first` on, which are forgotten with the next Push.
  void* const* TakeFrom(std::size_t first) {
    size_ = first;
    return items_ + first;
  }

 private:
  static constexpr std::size_t kOwn = 256;

  void Grow() {
    auto more = std::make_unique<void*[]>(2 * capacity_);
    std::memcpy(more.get(), items_, size_ * sizeof *items_);
    memory_ = std::move(more);
    items_ = memory_.get();
    capacity_ *= 2;
  }

  void* own_[kOwn];  // not initialised: only what was pushed is read
  std::unique_ptr<void*[]> memory_;
  void** items_ = own_;
  std::size_t size_ = 0;
  std::size_t capacity_ = kOwn;
};

// The place in the stream goes from call to call as an argument and a result, null for a stream
// that is not as it should be: in a register it is there for the next step sooner than in a field.
using Place = const unsigned char*;

class Reader {
 public:
  Reader(const unsigned char* data, std::size_t size, Por::Detail::Arena& arena)
      : end_(data + size), arena_(&arena) {}

  // `at` stands behind the root's 'U' and 'C'.
  bool ReadRoot(Place at, Por::Detail::ArenaRoot& root) {
    at = ReadProperties(at, root.GetHolder(), 1);
    return at != nullptr && ReadEnd(at, root.GetTraitsHolder(), 1) == end_;
  }

 private:
  std::size_t Left(Place at) const { return static_cast<std::size_t>(end_ - at); }
  bool Stands(Place at, unsigned char tag) const { return at != end_ && *at == tag; }

  // What was pushed since `first` becomes the content of a list.
  template <class T>
  void FillList(Por::Detail::OwnedList<T>& list, std::size_t first) {
    const std::size_t count = pending_.GetSize() - first;
    if (count == 0) return;
    void* const memory = arena_->Allocate(Por::Detail::OwnedList<T>::GetBlockSize(count));
    list.Borrow(memory, pending_.TakeFrom(first), count);
  }

  // A count and a payload of so many bytes. The payload, or null if it isn't there.
  Place TakeCounted(Place at, std::uint32_t& count) const {
    if (Left(at) < sizeof count) return nullptr;
    std::memcpy(&count, at, sizeof count);
    at += sizeof count;
    return count <= Left(at) ? at : nullptr;
  }

  // A name behind its letter and the beginning of its unit.
  Place TakeName(Place at, const Por::Detail::KnownName*& name) const {
    if (!Stands(at, kString)) return nullptr;
    std::uint32_t size;
    const Place bytes = TakeCounted(at + 1, size);
    if (bytes == nullptr || !Stands(bytes + size, kUnitBegin)) return nullptr;
    name = Por::Detail::FindName(bytes, size);
    return name != nullptr ? bytes + size + 1 : nullptr;
  }

  Place ReadProperties(Place at, CompositeValueHolder& composite, unsigned int depth) {
    const std::size_t first = pending_.GetSize();
    const Por::Detail::KnownName* last = nullptr;
    while (Stands(at, kProperty)) {
      const Por::Detail::KnownName* name;
      at = TakeName(at + 1, name);
      if (at == nullptr || (last != nullptr && !last->LiesBefore(*name))) return nullptr;
      last = name;
      // In the order in which they will be walked: the property, then its value.
      void* const memory = arena_->Allocate(sizeof(Por::Detail::ArenaProperty));
      Construction::Unit* value;
      at = ReadUnit(at, depth + 1, value);
      if (at == nullptr) return nullptr;
      Construction::Property* const property =
          new (memory) Por::Detail::ArenaProperty(name->name, *value);
      pending_.Push(property);
    }
    FillList(composite.GetList(), first);
    return at;
  }

  Place ReadElements(Place at, ArrayValueHolder& array, unsigned int depth) {
    const std::size_t first = pending_.GetSize();
    while (Stands(at, kUnitBegin)) {
      Construction::Unit* element;
      at = ReadUnit(at + 1, depth + 1, element);
      if (at == nullptr) return nullptr;
      pending_.Push(element);
    }
    FillList(array.GetList(), first);
    return at;
  }

  Place ReadTraits(Place at, TraitsHolder& traits, unsigned int depth) {
    const std::size_t first = pending_.GetSize();
    while (Stands(at, kTrait)) {
      const Por::Detail::KnownName* name;
      at = TakeName(at + 1, name);
      if (at == nullptr) return nullptr;
      void* const memory = arena_->Allocate(sizeof(Por::Detail::ArenaTrait));
      Construction::Unit* value;
      at = ReadUnit(at, depth + 1, value);
      if (at == nullptr) return nullptr;
      View::Trait* const trait = new (memory) Por::Detail::ArenaTrait(name->name, *value);
      if (!IsLast(*trait, first)) return nullptr;
      pending_.Push(trait);
    }
    FillList(traits.GetList(), first);
    return at;
  }

  // Whether the search of the holder would find the place of a new trait to be the last one.
  bool IsLast(const View::Trait& trait, std::size_t first) const {
    std::size_t low = first;
    const std::size_t high = pending_.GetSize();
    while (low < high) {
      const std::size_t middle = low + (high - low) / 2;
      const View::Trait& other = *static_cast<const View::Trait*>(pending_[middle]);
      const int names = trait.GetName().Compare(other.GetName());
      if (names < 0 || (names == 0 && Compare(trait.GetValue(), other.GetValue()) <= 0)) {
        return false;
      }
      low = middle + 1;
    }
    return true;
  }

  // The traits and the end of a unit.
  Place ReadEnd(Place at, TraitsHolder& traits, unsigned int depth) {
    if (!Stands(at, kUnitEnd)) {
      at = ReadTraits(at, traits, depth);
      if (at == nullptr || !Stands(at, kUnitEnd)) return nullptr;
    }
    return at + 1;
  }

  template <class T>
  Place ReadScalar(Place at, unsigned int depth, Construction::Unit*& out) {
    T value;
    if (Left(at) < sizeof value) return nullptr;
    if constexpr (std::is_same_v<T, bool>) {
      value = *at != 0;
    } else {
      std::memcpy(&value, at, sizeof value);
    }
    auto* const unit = arena_->Make<Por::Detail::ArenaUnit<ScalarValueHolder<T>>>(value);
    out = unit;
    return ReadEnd(at + sizeof value, unit->GetTraits(), depth);
  }

  // A unit with an empty value, which `fill` fills. A value with memory of its own gets it when the
  // arena knows that it must be released.
  template <class T, class Fill>
  Place MakeComplex(Place behind, unsigned int depth, Construction::Unit*& out, bool holds_memory,
                    Fill fill) {
    auto* const unit = arena_->Make<Por::Detail::ArenaUnit<ComplexValueHolder<T>>>();
    T& value = unit->GetHolder().GetValue();
    if (holds_memory) arena_->OnRelease(&Destroy<T>, &value);
    fill(value);
    out = unit;
    return ReadEnd(behind, unit->GetTraits(), depth);
  }

  Place ReadBlob(Place at, unsigned int depth, Construction::Unit*& out) {
    using Bytes = std::vector<unsigned char>;
    std::uint32_t size;
    const Place bytes = TakeCounted(at, size);
    if (bytes == nullptr) return nullptr;
    return MakeComplex<Bytes>(bytes + size, depth, out, size != 0,
                              [&](Bytes& value) { value.assign(bytes, bytes + size); });
  }

  Place ReadGuid(Place at, unsigned int depth, Construction::Unit*& out) {
    constexpr std::size_t kSize = sizeof(Common::Guid);
    if (Left(at) < kSize) return nullptr;
    return MakeComplex<Common::Guid>(at + kSize, depth, out, false, [&](Common::Guid& value) {
      std::memcpy(value.bytes.data(), at, kSize);
    });
  }

  Place ReadString(Place at, unsigned int depth, Construction::Unit*& out) {
    static const std::size_t kInside = Common::String().capacity();
    std::uint32_t size;
    const Place bytes = TakeCounted(at, size);
    if (bytes == nullptr || size % sizeof(char16_t) != 0) return nullptr;
    const std::size_t length = size / sizeof(char16_t);
    return MakeComplex<Common::String>(bytes + size, depth, out, length > kInside,
                                       [&](Common::String& value) {
                                         value.resize(length);
                                         if (size != 0) std::memcpy(value.data(), bytes, size);
                                       });
  }

  // Errors are few, and what is kept of one is the factory's affair.
  Place ReadError(Place at, Construction::Unit*& out) {
    std::uint32_t size;
    const Place bytes = TakeCounted(at, size);
    if (bytes == nullptr || !Stands(bytes + size, kUnitEnd)) return nullptr;
    OwnedUnit unit = GetStaticUnitFactory()->CreateError(Common::Error::Load(bytes, size));
    arena_->OnRelease(&DeleteUnit, unit.get());
    out = unit.release();
    return bytes + size + 1;
  }

  // Behind 'U', up to and with the 'E'.
  Place ReadUnit(Place at, unsigned int depth, Construction::Unit*& out) {
    if (depth > kDeepest || at == end_) return nullptr;
    switch (*at++) {
      case kNilIndex: {
        auto* const unit = arena_->Make<Por::Detail::ArenaUnit<NilValueHolder>>();
        out = unit;
        return ReadEnd(at, unit->GetTraits(), depth);
      }
#define POR_READ(index, Word, Value, Argument) \
  case index:                                  \
    return ReadScalar<Argument>(at, depth, out);
        POR_SCALAR_KINDS(POR_READ)
#undef POR_READ
      case kBlob:
        return ReadBlob(at, depth, out);
      case kGuid:
        return ReadGuid(at, depth, out);
      case kString:
        return ReadString(at, depth, out);
      case kError:
        return ReadError(at, out);
      case kArray: {
        auto* const unit = arena_->Make<Por::Detail::ArenaUnit<ArrayValueHolder>>();
        out = unit;
        at = ReadElements(at, unit->GetHolder(), depth);
        return at != nullptr ? ReadEnd(at, unit->GetTraits(), depth) : nullptr;
      }
      case kComposite: {
        auto* const unit = arena_->Make<Por::Detail::ArenaUnit<CompositeValueHolder>>();
        out = unit;
        at = ReadProperties(at, unit->GetHolder(), depth);
        return at != nullptr ? ReadEnd(at, unit->GetTraits(), depth) : nullptr;
      }
      default:
        return nullptr;
    }
  }

  const Place end_;
  Por::Detail::Arena* const arena_;
  Pending pending_;
};

}  // namespace

OwnedUnit ReadWellFormed(const unsigned char* data, std::size_t size) {
  if (size < 3 || data[0] != kUnitBegin || data[1] != kComposite) return nullptr;
  Por::Detail::Arena first(sizeof(Por::Detail::ArenaRoot) +
                           std::min(size, kMostExpected) * node_bytes / 16);
  // The root fits into the arena's first chunk; from here on it owns the arena.
  void* const place = first.Allocate(sizeof(Por::Detail::ArenaRoot));
  Por::Detail::ArenaRoot* const root = new (place) Por::Detail::ArenaRoot(first);
  OwnedUnit owner(root);
  Reader reader(data, size, root->GetArena());
  if (!reader.ReadRoot(data + 2, *root)) return nullptr;
  if (size <= kMostExpected) {
    AdaptNodeBytes(size, root->GetArena().GetTaken() - sizeof(Por::Detail::ArenaRoot));
  }
  return owner;
}

}  // namespace Por::Util::UnitStream
