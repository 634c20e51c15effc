#pragma once

#include <boost/shared_array.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/common/dynamic_caster.h"
#include "core/common/error.h"
#include "core/common/guid.h"
#include "core/common/string.h"
#include "enterprise/serialize/meta_info.h"

// What a record says about itself is kept apart from how that is encoded: record writers and
// readers see these two classes only.

namespace Serialization {

// Thrown as Common::Error.
inline constexpr std::uint32_t kInconsistentCode = 0x9C0002;  // no element fits the meta info
inline constexpr std::uint32_t kNoMetaInfoCode = 0x9C0003;    // the reader has no current element
inline constexpr std::uint32_t kNoDataCode = 0x9C0004;        // nothing to read a value from

// A shared block of bytes. Null holds nothing.
struct CountedBytes {
  boost::shared_array<unsigned char> data;
  std::size_t size = 0;
};

// Writes one packet. Used once and on one thread.
//
// The operations report nothing of their own; what throws is std::bad_alloc, and then the packet is
// of no use any more. An ElementWriter drops what its end throws; therefore Finish throws it, too,
// once there was no room for a part of the packet.
class Serializer : public Common::DynamicCasterImpl {
 public:
  virtual void Write(const MetaInfo& meta, bool value) = 0;
  virtual void Write(const MetaInfo& meta, unsigned char value) = 0;
  virtual void Write(const MetaInfo& meta, const Common::Guid& value) = 0;
  virtual void Write(const MetaInfo& meta, const Common::Error& value) = 0;
  virtual void Write(const MetaInfo& meta, const Common::String& value) = 0;
  virtual void Write(const MetaInfo& meta, unsigned int value) = 0;
  virtual void Write(const MetaInfo& meta, double value) = 0;
  virtual void Write(const MetaInfo& meta, unsigned long long value) = 0;
  virtual void Write(const MetaInfo& meta, int value) = 0;
  virtual void Write(const MetaInfo& meta, long long value) = 0;
  // Each byte is one character.
  virtual void Write(const MetaInfo& meta, const std::string& value) = 0;
  virtual void Write(const MetaInfo& meta, short value) = 0;
  virtual void Write(const MetaInfo& meta, unsigned short value) = 0;
  virtual void Write(const MetaInfo& meta, const std::vector<unsigned char>& value) = 0;
  virtual void Write(const MetaInfo& meta, const CountedBytes& value) = 0;

  // Ends the packet and hands over its bytes; nothing stays. The second form copies nothing. An
  // element that is open then gets no end tag: GetCurrentMetaInfo doesn't know it any more, and its
  // EndElement is one without a beginning.
  virtual void Finish(std::vector<unsigned char>& bytes) = 0;
  virtual CountedBytes Finish() = 0;

  // The name of the innermost open element and nothing else; no name if none is open.
  virtual MetaInfo GetCurrentMetaInfo() = 0;
  virtual void BeginElement(const MetaInfo& meta) = 0;
  virtual void EndElement(const MetaInfo& meta) = 0;

  // The version of what is being written; see VersionScope.
  virtual void SetSubjectVersion(unsigned long long version) = 0;
  virtual unsigned long long GetSubjectVersion() = 0;

  // A pointer, such as a literal, would go as a bool.
  template <class T>
  void Write(const MetaInfo& meta, const T* value) = delete;
};

// Reads one packet, in the order in which it was written. It can't be rewound. Used on one thread.
//
// Throws Common::Error with the codes above. A value whose element was found but can't be converted
// is kNoDataCode; the reader then stands behind that element, as after a good one.
class Deserializer : public Common::DynamicCasterImpl {
 public:
  virtual void Read(const MetaInfo& meta, bool& value) = 0;
  virtual void Read(const MetaInfo& meta, unsigned char& value) = 0;
  virtual void Read(const MetaInfo& meta, Common::Guid& value) = 0;
  virtual void Read(const MetaInfo& meta, Common::Error& value) = 0;
  virtual void Read(const MetaInfo& meta, Common::String& value) = 0;
  virtual void Read(const MetaInfo& meta, unsigned int& value) = 0;
  virtual void Read(const MetaInfo& meta, double& value) = 0;
  virtual void Read(const MetaInfo& meta, unsigned long long& value) = 0;
  virtual void Read(const MetaInfo& meta, int& value) = 0;
  virtual void Read(const MetaInfo& meta, long long& value) = 0;
  virtual void Read(const MetaInfo& meta, std::string& value) = 0;
  virtual void Read(const MetaInfo& meta, short& value) = 0;
  virtual void Read(const MetaInfo& meta, unsigned short& value) = 0;
  virtual void Read(const MetaInfo& meta, std::vector<unsigned char>& value) = 0;
  virtual void Read(const MetaInfo& meta, CountedBytes& value) = 0;

  // The name of the next child and nothing else; no name if there is none.
  virtual MetaInfo PeekMetaInfo() = 0;
  virtual void BeginElement(const MetaInfo& meta) = 0;
  virtual void EndElement(const MetaInfo& meta) = 0;

  // The version in force at this place of the packet.
  virtual unsigned long long GetSubjectVersion() = 0;

  // Whether all children of the open element were passed, so that BeginElement of any element would
  // throw kInconsistentCode; costs far less than the throw. False for a packet that can't be read.
  virtual bool IsAtEnd() = 0;
};

}  // namespace Serialization
