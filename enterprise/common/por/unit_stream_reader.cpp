#include "enterprise/common/por/unit_stream_reader.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
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

// Bytes of nodes for a byte of stream, about, in halves.
constexpr std::size_t kNodeBytesInHalves = 7;
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

class Reader {
 public:
  Reader(const unsigned char* data, std::size_t size, Por::Detail::Arena& arena)
      : at_(data), end_(data + size), arena_(&arena) {}

  bool ReadRoot(Por::Detail::ArenaRoot& root) {
    if (Left() < 3 || at_[0] != kUnitBegin || at_[1] != kComposite) return false;
    at_ += 2;
    return ReadProperties(root.GetHolder(), 1) && FinishTraits(root.GetTraitsHolder(), 1) &&
           at_ == end_;
  }

 private:
  std::size_t Left() const { return static_cast<std::size_t>(end_ - at_); }

  // What was pushed since `first` becomes the content of a list.
  template <class T>
  void FillList(Por::Detail::OwnedList<T>& list, std::size_t first) {
    const std::size_t count = pending_.GetSize() - first;
    if (count == 0) return;
    void* const memory = arena_->Allocate(Por::Detail::OwnedList<T>::GetBlockSize(count));
    list.Borrow(memory, pending_.TakeFrom(first), count);
  }

  // A counted payload behind a tag; at_ stands at the count. Null if it isn't there.
  const unsigned char* TakeCounted(std::uint32_t& count) {
    if (Left() < sizeof count) return nullptr;
    std::memcpy(&count, at_, sizeof count);
    if (count > Left() - sizeof count) return nullptr;
    const unsigned char* const bytes = at_ + sizeof count;
    at_ = bytes + count;
    return bytes;
  }

  // A name behind its letter and the beginning of its unit.
  const Por::Detail::KnownName* TakeName() {
    if (Left() < 2 || at_[1] != kString) return nullptr;
    at_ += 2;
    std::uint32_t size;
    const unsigned char* const bytes = TakeCounted(size);
    if (bytes == nullptr || size % 2 != 0) return nullptr;
    if (at_ == end_ || *at_++ != kUnitBegin) return nullptr;
    return Por::Detail::FindName(bytes, size);
  }

  bool ReadProperties(CompositeValueHolder& composite, unsigned int depth) {
    const std::size_t first = pending_.GetSize();
    const Por::Detail::KnownName* last = nullptr;
    while (at_ != end_ && *at_ == kProperty) {
      const Por::Detail::KnownName* const name = TakeName();
      if (name == nullptr || (last != nullptr && !last->LiesBefore(*name))) return false;
      last = name;
      // In the order in which they will be walked: the property, then its value.
      void* const place = arena_->Allocate(sizeof(Por::Detail::ArenaProperty));
      Construction::Unit* const value = ReadUnit(depth + 1);
      if (value == nullptr) return false;
      Construction::Property* const property =
          new (place) Por::Detail::ArenaProperty(name->name, *value);
      pending_.Push(property);
    }
    FillList(composite.GetList(), first);
    return true;
  }

  bool ReadElements(ArrayValueHolder& array, unsigned int depth) {
    const std::size_t first = pending_.GetSize();
    while (at_ != end_ && *at_ == kUnitBegin) {
      ++at_;
      Construction::Unit* const element = ReadUnit(depth + 1);
      if (element == nullptr) return false;
      pending_.Push(element);
    }
    FillList(array.GetList(), first);
    return true;
  }

  // The traits and the end of a unit.
  bool FinishTraits(TraitsHolder& traits, unsigned int depth) {
    if (at_ == end_) return false;
    if (*at_ == kUnitEnd) {
      ++at_;
      return true;
    }
    const std::size_t first = pending_.GetSize();
    while (at_ != end_ && *at_ == kTrait) {
      const Por::Detail::KnownName* const name = TakeName();
      if (name == nullptr) return false;
      void* const place = arena_->Allocate(sizeof(Por::Detail::ArenaTrait));
      Construction::Unit* const value = ReadUnit(depth + 1);
      if (value == nullptr) return false;
      View::Trait* const trait = new (place) Por::Detail::ArenaTrait(name->name, *value);
      if (!IsLast(*trait, first)) return false;
      pending_.Push(trait);
    }
    if (at_ == end_ || *at_++ != kUnitEnd) return false;
    FillList(traits.GetList(), first);
    return true;
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

  template <class Holder>
  Construction::Unit* Finish(Por::Detail::ArenaUnit<Holder>* unit, unsigned int depth) {
    if (at_ != end_ && *at_ == kUnitEnd) {
      ++at_;
      return unit;
    }
    return FinishTraits(unit->GetTraits(), depth) ? unit : nullptr;
  }

  template <class T>
  Construction::Unit* ReadScalar(unsigned int depth) {
    if (Left() < sizeof(T)) return nullptr;
    T value;
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return Finish(arena_->Make<Por::Detail::ArenaUnit<ScalarValueHolder<T>>>(value), depth);
  }

  // A value with memory of its own is made when the arena knows that it must be released.
  template <class T>
  T& MakeComplex(Por::Detail::ArenaUnit<ComplexValueHolder<T>>*& unit, bool holds_memory) {
    unit = arena_->Make<Por::Detail::ArenaUnit<ComplexValueHolder<T>>>(T());
    T& value = unit->GetHolder().GetValue();
    if (holds_memory) arena_->OnRelease(&Destroy<T>, &value);
    return value;
  }

  // Behind 'U', with its 'E'. Null for everything that is not as it should be.
  Construction::Unit* ReadUnit(unsigned int depth) {
    if (depth > kDeepest || at_ == end_) return nullptr;
    switch (*at_++) {
      case kNilIndex:
        return Finish(arena_->Make<Por::Detail::ArenaUnit<NilValueHolder>>(), depth);
      case 1:
        if (at_ == end_) return nullptr;
        return Finish(arena_->Make<Por::Detail::ArenaUnit<ScalarValueHolder<bool>>>(*at_++ != 0),
                      depth);
      case 2:
        return ReadScalar<unsigned char>(depth);
      case 3:
        return ReadScalar<signed char>(depth);
      case 4:
        return ReadScalar<unsigned short>(depth);
      case 5:
        return ReadScalar<short>(depth);
      case 6:
        return ReadScalar<unsigned int>(depth);
      case 7:
        return ReadScalar<int>(depth);
      case 8:
        return ReadScalar<unsigned long long>(depth);
      case 9:
        return ReadScalar<long long>(depth);
      case 10:
        return ReadScalar<double>(depth);
      case kBlob: {
        std::uint32_t size;
        const unsigned char* const bytes = TakeCounted(size);
        if (bytes == nullptr) return nullptr;
        Por::Detail::ArenaUnit<ComplexValueHolder<std::vector<unsigned char>>>* unit;
        MakeComplex(unit, size != 0).assign(bytes, bytes + size);
        return Finish(unit, depth);
      }
      case kGuid: {
        if (Left() < sizeof(Common::Guid)) return nullptr;
        Por::Detail::ArenaUnit<ComplexValueHolder<Common::Guid>>* unit;
        std::memcpy(MakeComplex(unit, false).bytes.data(), at_, sizeof(Common::Guid));
        at_ += sizeof(Common::Guid);
        return Finish(unit, depth);
      }
      case kString: {
        std::uint32_t size;
        const unsigned char* const bytes = TakeCounted(size);
        if (bytes == nullptr || size % sizeof(char16_t) != 0) return nullptr;
        const std::size_t length = size / sizeof(char16_t);
        Por::Detail::ArenaUnit<ComplexValueHolder<Common::String>>* unit;
        Common::String& text = MakeComplex(unit, length > Common::String().capacity());
        text.resize(length);
        if (size != 0) std::memcpy(text.data(), bytes, size);
        return Finish(unit, depth);
      }
      case kError: {
        std::uint32_t size;
        const unsigned char* const bytes = TakeCounted(size);
        if (bytes == nullptr) return nullptr;
        // Errors are few, and what is kept of one is the factory's affair.
        OwnedUnit unit = GetStaticUnitFactory()->CreateError(Common::Error::Load(bytes, size));
        arena_->OnRelease(&DeleteUnit, unit.get());
        Construction::Unit* const kept = unit.release();
        if (at_ == end_ || *at_++ != kUnitEnd) return nullptr;
        return kept;
      }
      case kArray: {
        auto* const unit = arena_->Make<Por::Detail::ArenaUnit<ArrayValueHolder>>();
        return ReadElements(unit->GetHolder(), depth) ? Finish(unit, depth) : nullptr;
      }
      case kComposite: {
        auto* const unit = arena_->Make<Por::Detail::ArenaUnit<CompositeValueHolder>>();
        return ReadProperties(unit->GetHolder(), depth) ? Finish(unit, depth) : nullptr;
      }
      default:
        return nullptr;
    }
  }

  const unsigned char* at_;
  const unsigned char* end_;
  Por::Detail::Arena* arena_;
  Pending pending_;
};

}  // namespace

OwnedUnit ReadWellFormed(const unsigned char* data, std::size_t size) {
  if (size < 3 || data[0] != kUnitBegin || data[1] != kComposite) return nullptr;
  Por::Detail::Arena first(sizeof(Por::Detail::ArenaRoot) +
                           std::min(size, kMostExpected) * kNodeBytesInHalves / 2);
  // The root fits into the arena's first chunk; from here on it owns the arena.
  void* const place = first.Allocate(sizeof(Por::Detail::ArenaRoot));
  Por::Detail::ArenaRoot* const root = new (place) Por::Detail::ArenaRoot(first);
  OwnedUnit owner(root);
  Reader reader(data, size, root->GetArena());
  return reader.ReadRoot(*root) ? std::move(owner) : nullptr;
}

}  // namespace Por::Util::UnitStream
