#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "core/common/dynamic_caster.h"
#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "enterprise/serialize/serializer.h"

// A call of a method of a service as one object: it knows its parameters and nothing of the
// transport. Whoever carries it (client_library.h) knows the transport and nothing of the
// parameters.

namespace Binding {

using PropertyMap = std::map<std::string, Common::String>;

// One call. Used on one thread at a time; a reply is never read while the request is written.
class Request : public Common::DynamicCasterImpl {
 public:
  // Replaces the value of a key that is there.
  virtual void SetProperty(const std::string& key, const Common::String& value) = 0;
  // Of the packet; the serializer takes its low 32 bits.
  virtual std::uint64_t GetCategory() const = 0;
  // Number of the interface.
  virtual std::uint32_t GetComponentId() const = 0;
  // Number of the method in the interface, from 1.
  virtual std::uint32_t GetMethodNumber() const = 0;
  // A reader over the request's own packet, in which `version` is in force. Throws what Serialize
  // throws.
  virtual std::unique_ptr<Serialization::Deserializer> CreateDeserializer(
      unsigned int version) const = 0;
  virtual PropertyMap GetProperties() const = 0;
  // As the client knows the interface.
  virtual std::uint64_t GetInterfaceVersion() const = 0;
  // Writes the element that is the request. Throws Common::Error of a value that can't be written,
  // or std::bad_alloc; the packet is of no use then.
  virtual void Serialize(Serialization::Serializer& serializer) const = 0;
  // Reads the element that is the reply and stores its results, if its "result" is success, in the
  // variables of the caller, which must be there until the call has ended. A result that is missing
  // or malformed leaves its variable as far as it was read, and nothing tells of it; one that is
  // missing may cost those behind it, too (TryReadElement).
  // Throws Common::Error of the deserializer when there is no reply or no readable "result", and
  // std::bad_alloc. The "result" itself goes no further: the carrier reads it on its own.
  virtual void ReadReply(Serialization::Deserializer& deserializer) = 0;
};

// The part of a request that depends on the signature of its method.
class RequestSerializer : public Common::NonCopyable {
 public:
  virtual ~RequestSerializer() = default;
  // Throws Common::Error of a value that can't be written.
  virtual void WriteArguments(Serialization::Serializer& serializer) const = 0;
  // Throws no Common::Error.
  virtual void ReadResults(Serialization::Deserializer& deserializer) = 0;
};

}  // namespace Binding
