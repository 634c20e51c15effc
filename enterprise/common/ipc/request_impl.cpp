#include "enterprise/common/ipc/request_impl.h"

#include <utility>

#include "core/common/error.h"
#include "core/common/unix/safe_assert.h"
#include "enterprise/serialize/element_scope.h"
#include "enterprise/serialize/xml_serializer.h"

namespace Binding::Detail {

namespace {

constexpr char kPath[] = "enterprise/common/ipc/request_impl";

}  // namespace

RequestBase::RequestBase(MethodInfo method) : method_(std::move(method)) {
  RegisterInterface(kInterfaceName, this);
}

void RequestBase::SetProperty(const std::string& key, const Common::String& value) {
  properties_.insert_or_assign(key, value);
}

std::unique_ptr<Serialization::Deserializer> RequestBase::CreateDeserializer(
    unsigned int version) const {
  const std::unique_ptr<Serialization::Serializer> serializer =
      Serialization::CreateXMLPacketSerializer(static_cast<unsigned int>(method_.category));
  Serialize(*serializer);
  const Serialization::CountedBytes packet = serializer->Finish();
  if (packet.size == 0) Common::SafeAssert("data.size()", kPath, 70);
  return Serialization::CreateXMLPacketDeserializer(packet.data.get(), packet.size, version);
}

Serialization::MetaInfo RequestBase::MakeEnvelope(const char* kind) const {
  std::string name(kind);
  name.append("_").append(method_.interface_name).append("_").append(method_.method_name);
  return Serialization::MetaInfo(std::move(name));
}

void RequestBase::Serialize(Serialization::Serializer& serializer) const {
  const Serialization::ElementWriter envelope(serializer, MakeEnvelope("request"));
  WriteArguments(serializer);
}

void RequestBase::ReadReply(Serialization::Deserializer& deserializer) {
  const Serialization::ElementReader envelope(deserializer, MakeEnvelope("reply"));
  Common::Error result;
  deserializer.Read(Serialization::MetaInfo("result", true), result);
  if (!result.IsFailure()) ReadResults(deserializer);
}

}  // namespace Binding::Detail
