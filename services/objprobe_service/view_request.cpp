#include "services/objprobe_service/view_request.h"

#include <iterator>
#include <memory>
#include <string>

#include "core/common/line_tag.h"
#include "core/file/memory_file.h"
#include "core/xml/simple_reader.h"
#include "core/xml/xml_tag.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/serialize/element_scope.h"
#include "enterprise/serialize/xml_serializer.h"
#include "services/objprobe_service/service_error.h"

namespace ObjProbeService {

namespace {

using Serialization::Deserializer;
using Serialization::ElementReader;
using Serialization::MetaInfo;

constexpr Common::SourceFile kSource{"services/objprobe_service/view_request"};

constexpr const char* kMethodNames[] = {
    "OpenDynamicView", "OpenStaticView",   "AcquireUpdates", "CloseView",   "Subscribe",
    "AddInterest",     "ReadSubscription", "RemoveInterest", "Unsubscribe",
};
constexpr std::uint32_t kMethodCount = std::size(kMethodNames);
constexpr std::uint32_t kFirstVersionMethods = 4;

// The reader of packets reports a broken one by an assertion, which is not for clients to cause.
bool IsDocument(const std::vector<unsigned char>& packet) {
  Core::buf_ifile<char> file(reinterpret_cast<const char*>(packet.data()), packet.size());
  Core::XmlDocument document;
  unsigned int line = 0;
  unsigned int column = 0;
  return Core::ReadDocument(document, file, line, column) && document.GetRoot() != nullptr;
}

void ReadNumber(Deserializer& from, const char* name, unsigned int& number) {
  from.Read(MetaInfo(name), number);
}

void ReadUnit(Deserializer& from, const char* name, Por::SharedUnit& unit) {
  const ElementReader element(from, MetaInfo(name));
  bool is_empty = true;
  from.Read(MetaInfo(Serialization::kIsEmptyName), is_empty);
  if (is_empty) return;
  std::vector<unsigned char> bytes;
  from.Read(MetaInfo(Serialization::kValueName), bytes);
  unit = Por::Util::ReadUnitBlob(bytes, *Por::GetStaticUnitFactory());
  // A stream that ends no unit is not the null that means everything.
  if (unit == nullptr) {
    throw Common::Error(Serialization::kNoDataCode, "SERIALIZER_ERROR_NO_DATA",
                        kSource.At("ReadUnit", 10));
  }
}

void ReadSpec(Deserializer& from, const char* name, Dml::ViewSpec& spec) {
  const ElementReader element(from, MetaInfo(name));
  ReadUnit(from, "Pattern", spec.pattern);
  ReadUnit(from, "Options", spec.options);
}

void ReadArguments(Deserializer& from, ViewMethod method, ViewRequest& request) {
  switch (method) {
    case ViewMethod::kOpenDynamicView:
    case ViewMethod::kOpenStaticView:
      return ReadSpec(from, "specification", request.spec);
    case ViewMethod::kAcquireUpdates:
    case ViewMethod::kCloseView:
      return ReadNumber(from, "viewID", request.view);
    case ViewMethod::kSubscribe:
      return;
    case ViewMethod::kAddInterest: {
      const ElementReader element(from, MetaInfo("spec"));
      ReadNumber(from, "Subscription", request.subscriber);
      return ReadSpec(from, "Interest", request.spec);
    }
    case ViewMethod::kRemoveInterest: {
      const ElementReader element(from, MetaInfo("topic"));
      ReadNumber(from, "Subscriber", request.subscriber);
      return ReadNumber(from, "Interest", request.channel);
    }
    case ViewMethod::kReadSubscription:
    case ViewMethod::kUnsubscribe:
      return ReadNumber(from, "subscriber", request.subscriber);
  }
}

}  // namespace

bool HasMethod(std::uint32_t number, unsigned int interface_version) {
  return number >= 1 && number <= (interface_version == 1 ? kFirstVersionMethods : kMethodCount);
}

const char* GetMethodName(ViewMethod method) {
  return kMethodNames[static_cast<std::uint32_t>(method) - 1];
}

ViewRequest ReadViewRequest(ViewMethod method, const std::vector<unsigned char>& packet) {
  ViewRequest request;
  request.size = packet.size();
  if (!IsDocument(packet)) {
    throw MakeServiceError(kUnreadableRequest, kSource.At("ReadViewRequest", 20));
  }
  try {
    const std::unique_ptr<Deserializer> from =
        Serialization::CreateXMLPacketDeserializer(packet.data(), packet.size(), 0);
    const ElementReader envelope(
        *from, MetaInfo(std::string("request_ViewManager_").append(GetMethodName(method))));
    ReadArguments(*from, method, request);
  } catch (const Common::Error& error) {
    throw MakeServiceError(kUnreadableRequest, kSource.At("ReadViewRequest", 30), error);
  }
  return request;
}

}  // namespace ObjProbeService
