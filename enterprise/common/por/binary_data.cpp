#include "enterprise/common/por/binary_data.h"

#include <bit>
#include <cstring>
#include <memory>

#include "enterprise/common/por/unit_stream.h"

namespace Por::Util {

static_assert(std::endian::native == std::endian::little, "numbers are written as they lie");

void MD5HashConsumer::Flush() {
  md5_update(&state_, used_, gathered_.data());
  used_ = 0;
}

void MD5HashConsumer::Consume(const unsigned char* bytes, std::uint32_t length) {
  if (length > gathered_.size() - used_) Flush();
  // Large enough to be hashed as it is.
  if (used_ == 0 && length >= MD5_BLOCK_SIZE) {
    md5_update(&state_, length, bytes);
    return;
  }
  if (length != 0) std::memcpy(gathered_.data() + used_, bytes, length);
  used_ += length;
}

Common::Guid MD5HashConsumer::Finish() {
  Flush();
  Common::Guid digest;
  md5_digest(&state_, digest.bytes.size(), digest.bytes.data());
  return digest;
}

void BlobWriter::Consume(const unsigned char* bytes, std::uint32_t length) {
  bytes_->insert(bytes_->end(), bytes, bytes + length);
}

void BinaryDataProvider::Put(unsigned char tag) {
  consumer_->Consume(&tag, 1);
}

template <class T>
void BinaryDataProvider::PutNumber(unsigned char tag, T value) {
  Put(tag);
  unsigned char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  consumer_->Consume(bytes, sizeof value);
}

void BinaryDataProvider::PutCounted(unsigned char tag, const void* bytes, std::size_t length) {
  PutNumber(tag, UnitStream::CheckCount(length));
  consumer_->Consume(static_cast<const unsigned char*>(bytes), static_cast<std::uint32_t>(length));
}

void BinaryDataProvider::OnUnitBegin() {
  Put(UnitStream::kUnitBegin);
}
void BinaryDataProvider::OnUnitEnd() {
  Put(UnitStream::kUnitEnd);
}

void BinaryDataProvider::OnProperty(const Name& name) {
  Put(UnitStream::kProperty);
  OnString(name.ToString());
}

void BinaryDataProvider::OnTrait(const Name& name) {
  Put(UnitStream::kTrait);
  OnString(name.ToString());
}

void BinaryDataProvider::OnNil() {
  Put(kNilIndex);
}

#define POR_EVENT(index, Word, Value, Argument)       \
  void BinaryDataProvider::On##Word(Argument value) { \
    PutNumber(index, value);                          \
  }
POR_SCALAR_KINDS(POR_EVENT)
#undef POR_EVENT

void BinaryDataProvider::OnBlob(const std::vector<unsigned char>& value) {
  PutCounted(UnitStream::kBlob, value.data(), value.size());
}

void BinaryDataProvider::OnGuid(const Common::Guid& value) {
  Put(kGuidIndex);
  consumer_->Consume(value.bytes.data(), static_cast<std::uint32_t>(value.bytes.size()));
}

void BinaryDataProvider::OnString(const Common::String& value) {
  PutCounted(kStringIndex, value.data(), value.size() * sizeof(char16_t));
}

void BinaryDataProvider::OnError(const Common::Error& value) {
  unsigned int size = 0;
  const std::unique_ptr<unsigned char[]> bytes = value.Save(size);
  PutCounted(kErrorIndex, bytes.get(), size);
}

void BinaryDataProvider::OnArray() {
  Put(UnitStream::kArray);
}
void BinaryDataProvider::OnComposite() {
  Put(UnitStream::kComposite);
}

}  // namespace Por::Util
