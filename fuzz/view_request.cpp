// Requests to the view manager: the number of the method, a line feed, the packet. Whatever a
// packet holds, the service reads what the method needs or throws the one error that says it can't;
// and what it has read, as a request of a client, is read as the same again.

#include "services/objprobe_service/view_request.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

#include "enterprise/common/dml_view_common/view_manager_requests.h"
#include "enterprise/serialize/xml_serializer.h"
#include "fuzz/fuzz_units.h"
#include "services/objprobe_service/service_error.h"

using namespace Dml::ViewManagement;
using namespace ObjProbeService;

namespace {

std::vector<unsigned char> WriteRequest(ViewMethod method, const ViewRequest& request) {
  unsigned int id = 0;
  std::vector<Por::SharedUnit> units;
  std::vector<ViewUpdate> updates;
  Subscription subscription;
  Topic topic;
  SubscriptionContent content;
  const std::unique_ptr<Binding::Request> made = [&] {
    switch (method) {
      case ViewMethod::kOpenDynamicView:
        return CreateOpenDynamicViewRequest(request.spec, id, units);
      case ViewMethod::kOpenStaticView:
        return CreateOpenStaticViewRequest(request.spec, units);
      case ViewMethod::kAcquireUpdates:
        return CreateAcquireUpdatesRequest(request.view, updates);
      case ViewMethod::kCloseView:
        return CreateCloseViewRequest(request.view);
      case ViewMethod::kSubscribe:
        return CreateSubscribeRequest({}, subscription);
      case ViewMethod::kAddInterest:
        return CreateAddInterestRequest({request.subscriber, request.spec}, topic);
      case ViewMethod::kReadSubscription:
        return CreateReadSubscriptionRequest(request.subscriber, content);
      case ViewMethod::kRemoveInterest:
        return CreateRemoveInterestRequest({request.subscriber, request.channel});
      default:
        return CreateUnsubscribeRequest(request.subscriber);
    }
  }();
  const auto to = Serialization::CreateXMLPacketSerializer(0);
  made->Serialize(*to);
  std::vector<unsigned char> packet;
  to->Finish(packet);
  return packet;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint32_t number = static_cast<std::uint32_t>(data[0]) - '0';
  if (!HasMethod(number, 2)) return 0;
  const auto method = static_cast<ViewMethod>(number);
  ViewRequest request;
  try {
    request = ReadViewRequest(method, {data + std::min<std::size_t>(2, size), data + size});
  } catch (const Common::Error& error) {
    Fuzz::Require(error.GetCode() == kUnreadableRequest, "a bad request is told as one");
    return 0;
  }
  const ViewRequest again = ReadViewRequest(method, WriteRequest(method, request));
  Fuzz::Require(Fuzz::IsSame(again.spec.pattern, request.spec.pattern) &&
                    Fuzz::IsSame(again.spec.options, request.spec.options) &&
                    again.view == request.view && again.subscriber == request.subscriber &&
                    again.channel == request.channel,
                "what was read is what a client would send");
  return 0;
}
