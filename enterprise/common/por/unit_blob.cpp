#include "enterprise/common/por/unit_blob.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "core/common/message_table.h"
#include "enterprise/common/por/binary_data.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_accumulator.h"
#include "enterprise/common/por/unit_stream.h"
#include "enterprise/common/por/unit_stream_reader.h"

namespace Por::Util {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/unit_blob"};

// The text holds all data in hexadecimal: it is made once, in its final size, and only then copied
// into the record. The places of the message may stand in either order.
Common::String DescribeCorruption(const unsigned char* data, std::size_t size,
                                  std::size_t position) {
  constexpr std::u16string_view kDataPlace = u"{0}";
  Common::String frame;
  const std::string digits = std::to_string(position);
  // A text that was filled in is not scanned again, so the place of the data stays for what
  // follows.
  Common::FormatMessage(frame, Common::GetMessageText(Common::MessageRow::PorUnitCorrupted),
                        std::vector<Common::String>{Common::String(kDataPlace),
                                                    Common::String(digits.begin(), digits.end())});
  const std::size_t place = frame.find(kDataPlace);
  if (place == Common::String::npos) return frame;
  Common::String text;
  text.reserve(frame.size() - kDataPlace.size() + 2 * size);
  text.append(frame, 0, place);
  for (std::size_t i = 0; i < size; ++i) {
    constexpr char16_t kDigits[] = u"0123456789abcdef";
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 15];
  }
  text.append(frame, place + kDataPlace.size());
  return text;
}

[[noreturn]] void ThrowCorrupted(const unsigned char* data, std::size_t size,
                                 std::size_t position) {
  try {
    throw ModuleError(kPorUnitCorrupted, DescribeCorruption(data, size, position).c_str(),
                      kSource.At("Follow", 10));
  } catch (const std::bad_alloc&) {
    throw ModuleError(Common::Error::OutOfMemory());
  }
}

// Turns the bytes of a stream into events. Every read is bounded; a stream that ends inside an item
// is refused at the place behind the item's tag.
class Follower {
 public:
  Follower(const unsigned char* data, std::size_t size, UnitWalker& walker)
      : data_(data), size_(size), walker_(&walker) {}

  void Follow() {
    walker_->OnUnitBegin();
    while (position_ < size_) {
      item_ = position_ + 1;
      switch (data_[position_]) {
        case UnitStream::kArray:
          ++position_;
          walker_->OnArray();
          break;
        case UnitStream::kComposite:
          ++position_;
          walker_->OnUnitBegin();
          walker_->OnComposite();
          break;
        case UnitStream::kUnitEnd:
          ++position_;
          walker_->OnUnitEnd();
          break;
        case UnitStream::kUnitBegin:
          ++position_;
          walker_->OnUnitBegin();
          break;
        case UnitStream::kProperty:
          walker_->OnProperty(ReadName());
          ReadValue();
          break;
        case UnitStream::kTrait:
          walker_->OnTrait(ReadName());
          ReadValue();
          break;
        default:
          if (!ReadValue()) Refuse();
          break;
      }
    }
  }

  // Refuses the stream at the item that is being read.
  [[noreturn]] void Refuse() const { ThrowCorrupted(data_, size_, item_); }

 private:
  const unsigned char* Take(std::size_t length) {
    if (length > size_ - position_) Refuse();
    const unsigned char* const taken = data_ + position_;
    position_ += length;
    return taken;
  }

  // A boolean may come as any byte.
  template <class T>
  T ReadNumber() {
    if constexpr (std::is_same_v<T, bool>) {
      return *Take(1) != 0;
    } else {
      T value;
      std::memcpy(&value, Take(sizeof value), sizeof value);
      return value;
    }
  }

  Common::String ReadString() {
    const std::uint32_t length = ReadNumber<std::uint32_t>();
    const unsigned char* const bytes = Take(length);
    if (length % sizeof(char16_t) != 0) Refuse();
    Common::String text(length / sizeof(char16_t), u'\0');
    if (length != 0) std::memcpy(text.data(), bytes, length);
    return text;
  }

  // The letter, the tag of a string item, which nobody looks at, and the text.
  Name ReadName() {
    ++position_;
    Take(1);
    return Name(ReadString());
  }

  // One value item. False for a tag that begins none: the tag is stepped over.
  bool ReadValue() {
    item_ = position_ + 1;
    if (position_ == size_) ThrowCorrupted(data_, size_, position_);
    switch (data_[position_++]) {
      case kNilIndex:
        walker_->OnNil();
        return true;
#define POR_READ(index, Word, Value, Argument) \
  case index:                                  \
    walker_->On##Word(ReadNumber<Argument>()); \
    return true;
        POR_SCALAR_KINDS(POR_READ)
#undef POR_READ
      case UnitStream::kBlob: {
        const std::uint32_t length = ReadNumber<std::uint32_t>();
        const unsigned char* const bytes = Take(length);
        walker_->OnBlob(std::vector<unsigned char>(bytes, bytes + length));
        return true;
      }
      case UnitStream::kGuid: {
        Common::Guid guid;
        std::memcpy(guid.bytes.data(), Take(guid.bytes.size()), guid.bytes.size());
        walker_->OnGuid(guid);
        return true;
      }
      case UnitStream::kString:
        walker_->OnString(ReadString());
        return true;
      case UnitStream::kError: {
        const std::uint32_t length = ReadNumber<std::uint32_t>();
        walker_->OnError(Common::Error::Load(Take(length), length));
        return true;
      }
      default:
        return false;
    }
  }

  const unsigned char* data_;
  std::size_t size_;
  std::size_t position_ = 0;
  std::size_t item_ = 0;  // the place behind the tag of the current item
  UnitWalker* walker_;
};

}  // namespace

void WriteUnitBlob(const View::Unit& unit, std::vector<unsigned char>& bytes) {
  bytes.clear();
  BlobWriter writer(bytes);
  UnitStream::Write(unit, writer);
}

OwnedUnit ReadUnitBlob(const unsigned char* data, std::size_t size,
                       const Construction::UnitFactory& factory) {
  if (size == 0) return nullptr;
  if (typeid(factory) == typeid(Construction::InMemoryUnitFactory)) {
    if (OwnedUnit unit = UnitStream::ReadWellFormed(data, size)) return unit;
  }
  UnitAccumulator accumulator(factory);
  UnitBuildingWalker walker(accumulator);
  Follower follower(data, size, walker);
  try {
    follower.Follow();
  } catch (const ModuleError&) {
    if (!accumulator.IsTooDeep()) throw;
    follower.Refuse();
  }
  return accumulator.TakeResult();
}

OwnedUnit ReadUnitBlob(const std::vector<unsigned char>& bytes,
                       const Construction::UnitFactory& factory) {
  return ReadUnitBlob(bytes.data(), bytes.size(), factory);
}

void FollowUnitBlob(const unsigned char* data, std::size_t size, UnitWalker& walker) {
  Follower(data, size, walker).Follow();
}

}  // namespace Por::Util
