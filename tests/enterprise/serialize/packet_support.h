#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/serialize/serializer.h"
#include "enterprise/serialize/xml_serializer.h"

// Packets as texts that show their own difference.
namespace Serialization::Packets {

// Assertions go to the trace alone, not with their stacks to standard error.
[[maybe_unused]] inline const int assertions_to_trace = setenv("VELORIN_SAFE_ASSERT", "event", 1);

inline constexpr std::string_view kBegin = "\xEF\xBB\xBF<XML_SERIALIZER>";
inline constexpr std::string_view kEnd = "</XML_SERIALIZER>";

// The packet that `calls` write on a Serializer&.
template <class Calls>
std::string WritePacket(Calls&& calls, unsigned int category = 0) {
  const std::unique_ptr<Serializer> serializer = CreateXMLPacketSerializer(category);
  calls(*serializer);
  const CountedBytes packet = serializer->Finish();
  return {reinterpret_cast<const char*>(packet.data.get()), packet.size};
}

// The elements of that packet.
template <class Calls>
std::string WriteElements(Calls&& calls, unsigned int category = 0) {
  const std::string packet = WritePacket(calls, category);
  if (!packet.starts_with(kBegin) || !packet.ends_with(kEnd)) return "no packet: " + packet;
  return packet.substr(kBegin.size(), packet.size() - kBegin.size() - kEnd.size());
}

template <class T>
std::string WriteValue(const T& value) {
  return WriteElements([&](Serializer& to) { to.Write(MetaInfo("v"), value); });
}

inline std::unique_ptr<Deserializer> OpenPacket(std::string_view packet,
                                                unsigned long long version = 0) {
  // Freed behind the call: the reader keeps nothing of it.
  const std::vector<unsigned char> copy(packet.begin(), packet.end());
  return CreateXMLPacketDeserializer(copy.data(), copy.size(), version);
}

inline std::unique_ptr<Deserializer> OpenElements(std::string_view elements,
                                                  unsigned long long version = 0) {
  return OpenPacket(std::string(kBegin).append(elements).append(kEnd), version);
}

// The code of the error that `calls` throw, 0 for none.
template <class Calls>
std::uint32_t CodeOf(Calls&& calls) {
  try {
    calls();
  } catch (const Common::Error& error) {
    return error.GetCode();
  }
  return 0;
}

inline TraitList MakeTraits(std::vector<MetaInfoTrait> traits) {
  return std::make_shared<const std::vector<MetaInfoTrait>>(std::move(traits));
}

}  // namespace Serialization::Packets
