#include "enterprise/common/por/unit_stream.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <memory>

#include "core/common/message_table.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"

namespace Por::Util::UnitStream {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/unit_stream"};

static_assert(std::endian::native == std::endian::little, "numbers are written as they lie");

// Bytes on their way to a consumer.
class Buffer {
 public:
  Buffer(BinaryDataConsumer& consumer, std::size_t piece) : consumer_(&consumer), piece_(piece) {}

  // Room for `size` bytes, at most kRoom, of which Advance tells how many were used.
  unsigned char* Reserve(std::size_t size) {
    if (size > kWholeBuffer - used_) Flush();
    return bytes_ + used_;
  }
  void Advance(std::size_t size) { used_ += size; }

  void Put(const void* bytes, std::size_t size) {
    if (size > kRoom) {
      Flush();
      consumer_->Consume(static_cast<const unsigned char*>(bytes),
                         static_cast<std::uint32_t>(size));
      return;
    }
    if (size != 0) std::memcpy(Reserve(size), bytes, size);
    Advance(size);
  }

  // Hands on what makes up whole pieces.
  void FlushPieces() {
    if (used_ < piece_) return;
    const std::size_t rest = used_ % piece_;
    consumer_->Consume(bytes_, static_cast<std::uint32_t>(used_ - rest));
    std::memmove(bytes_, bytes_ + used_ - rest, rest);
    used_ = rest;
  }

  void Flush() {
    if (used_ != 0) consumer_->Consume(bytes_, static_cast<std::uint32_t>(used_));
    used_ = 0;
  }

  static constexpr std::size_t kRoom = 1024;

 private:
  BinaryDataConsumer* consumer_;
  std::size_t piece_;
  std::size_t used_ = 0;
  unsigned char bytes_[kWholeBuffer];  // not initialised: only what was written is read
};

class Writer final : public View::UnitReader,
                     public ItemProcessor<const View::Unit>,
                     public ItemProcessor<const View::Property>,
                     public ItemProcessor<const View::Trait> {
 public:
  Writer(BinaryDataConsumer& consumer, std::size_t piece) : buffer_(consumer, piece) {}

  void WriteUnit(const View::Unit& unit) {
    PutTag(kUnitBegin);
    unit.Accept(*this);
    unit.GetTraits().ForEach(*this);
    PutTag(kUnitEnd);
    buffer_.FlushPieces();
  }
  void Flush() { buffer_.Flush(); }

  void Visit(const View::NilValue&) override { PutTag(kNilIndex); }
#define POR_WRITE(index, Word, Value, Argument)                    \
  void Visit(const View::Value& value) override {                  \
    const Argument number = value.Get();                           \
    unsigned char* const out = buffer_.Reserve(1 + sizeof number); \
    out[0] = index;                                                \
    std::memcpy(out + 1, &number, sizeof number);                  \
    buffer_.Advance(1 + sizeof number);                            \
  }
  POR_SCALAR_KINDS(POR_WRITE)
#undef POR_WRITE
  void Visit(const View::ComplexValue<std::vector<unsigned char>>& value) override {
    PutCounted(kBlob, value.Get().data(), value.Get().size());
  }
  void Visit(const View::ComplexValue<Common::Guid>& value) override {
    PutTag(kGuid);
    buffer_.Put(value.Get().bytes.data(), value.Get().bytes.size());
  }
  void Visit(const View::ComplexValue<Common::String>& value) override {
    PutCounted(kString, value.Get().data(), value.Get().size() * sizeof(char16_t));
  }
  void Visit(const View::ComplexValue<Common::Error>& value) override {
    unsigned int size = 0;
    const std::unique_ptr<unsigned char[]> bytes = value.Get().Save(size);
    PutCounted(kError, bytes.get(), size);
  }
  void Visit(const View::ArrayValue& value) override {
    PutTag(kArray);
    value.ForEach(*this);
  }
  void Visit(const View::CompositeValue& value) override {
    PutTag(kComposite);
    value.ForEach(*this);
  }

  bool Process(const View::Unit& element) override {
    WriteUnit(element);
    return false;
  }
  bool Process(const View::Property& property) override {
    PutName(kProperty, property.GetName());
    WriteUnit(property.GetValue());
    return false;
  }
  bool Process(const View::Trait& trait) override {
    PutName(kTrait, trait.GetName());
    WriteUnit(trait.GetValue());
    return false;
  }

 private:
  void PutTag(unsigned char tag) {
    *buffer_.Reserve(1) = tag;
    buffer_.Advance(1);
  }

  void PutCounted(unsigned char tag, const void* bytes, std::size_t size) {
    const std::uint32_t count = CheckCount(size);
    unsigned char* const out = buffer_.Reserve(5);
    out[0] = tag;
    std::memcpy(out + 1, &count, sizeof count);
    buffer_.Advance(5);
    buffer_.Put(bytes, size);
  }

  // Short ASCII, which names nearly always are, is widened straight into the buffer.
  void PutName(unsigned char tag, const Name& name) {
    constexpr std::size_t kHead = 6;
    constexpr std::size_t kShort = 64;
    unsigned char* const out = buffer_.Reserve(kHead + sizeof(char16_t) * kShort);
    const char* const text = name.GetText();
    std::uint32_t size = 0;
    for (std::size_t i = 0; i < kShort; ++i) {
      const char16_t unit = static_cast<unsigned char>(text[i]);
      if (unit == 0) {
        out[0] = tag;
        out[1] = kString;
        std::memcpy(out + 2, &size, sizeof size);
        buffer_.Advance(kHead + size);
        return;
      }
      if (unit >= 0x80) break;
      std::memcpy(out + kHead + size, &unit, sizeof unit);
      size += sizeof unit;
    }
    PutTag(tag);
    const Common::String wide = name.ToString();
    PutCounted(kString, wide.data(), wide.size() * sizeof(char16_t));
  }

  Buffer buffer_;
};

}  // namespace

std::uint32_t CheckCount(std::size_t length) {
  if (length > std::numeric_limits<std::uint32_t>::max()) {
    throw ModuleError(kPorOutOfRange, Common::GetMessageText(Common::MessageRow::PorOutOfRange),
                      kSource.At("CheckCount", 10));
  }
  return static_cast<std::uint32_t>(length);
}

void Write(const View::Unit& unit, BinaryDataConsumer& consumer, std::size_t piece) {
  Writer writer(consumer, piece);
  writer.WriteUnit(unit);
  writer.Flush();
}

}  // namespace Por::Util::UnitStream
