#pragma once

#include <nettle/md5.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/common/guid.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit_walker.h"

// Encoding of walk events into bytes and the sinks for them. The layout stands in unit_blob.h.

namespace Por::Util {

// A sink of bytes.
class BinaryDataConsumer : public Common::NonCopyable {
 public:
  virtual ~BinaryDataConsumer() = default;
  virtual void Consume(const unsigned char* bytes, std::uint32_t length) = 0;
};

// MD5 (RFC 1321) of all bytes consumed. The split into calls does not matter.
class MD5HashConsumer final : public BinaryDataConsumer {
 public:
  MD5HashConsumer() noexcept { md5_init(&state_); }
  void Consume(const unsigned char* bytes, std::uint32_t length) override;
  // The 16 bytes of the digest; begins anew.
  Common::Guid Finish();

 private:
  void Flush();

  md5_ctx state_;
  // Small pieces are gathered, so that the hash is called once for many of them.
  std::array<unsigned char, 1024> gathered_;
  std::uint32_t used_ = 0;
};

// Appends to a byte vector, which it borrows.
class BlobWriter final : public BinaryDataConsumer {
 public:
  explicit BlobWriter(std::vector<unsigned char>& bytes) : bytes_(&bytes) {}
  void Consume(const unsigned char* bytes, std::uint32_t length) override;

 private:
  std::vector<unsigned char>* bytes_;
};

// Encodes each event into a consumer, which must outlive this object: each tag and each field in a
// call of its own. Holds no buffer. Text with more bytes than a count can tell throws ModuleError
// 0xFA000F.
class BinaryDataProvider final : public UnitWalker {
 public:
  explicit BinaryDataProvider(BinaryDataConsumer& consumer) : consumer_(&consumer) {}

  void OnUnitBegin() override;
  void OnUnitEnd() override;
  void OnProperty(const Name& name) override;
  void OnTrait(const Name& name) override;
  void OnNil() override;
#define POR_EVENT(index, Word, Value, Argument) void On##Word(Argument value) override;
  POR_SCALAR_KINDS(POR_EVENT)
#undef POR_EVENT
#define POR_EVENT(index, Word, Value, Argument) void On##Word(const Argument& value) override;
  POR_COMPLEX_KINDS(POR_EVENT)
#undef POR_EVENT
  void OnArray() override;
  void OnComposite() override;

 private:
  void Put(unsigned char tag);
  template <class T>
  void PutNumber(unsigned char tag, T value);
  void PutCounted(unsigned char tag, const void* bytes, std::size_t length);

  BinaryDataConsumer* consumer_;
};

}  // namespace Por::Util
