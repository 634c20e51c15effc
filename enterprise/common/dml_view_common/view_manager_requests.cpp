#include "enterprise/common/dml_view_common/view_manager_requests.h"

#include <cstdint>

#include "enterprise/common/dml_view_common/view_manager.h"
#include "enterprise/common/dml_view_common/view_record_formats.h"
#include "enterprise/common/ipc/utils.h"
#include "enterprise/common/por/serialization/unit_serializer.h"

namespace Dml::ViewManagement {

namespace {

using Binding::BuildRequest;
using Units = std::vector<Por::SharedUnit>;

Binding::MethodInfo Method(std::uint32_t number, const char* name, std::uint64_t since_version) {
  Binding::MethodInfo method;
  method.component_id = kViewManagerId;
  method.method_number = number;
  method.interface_name = "ViewManager";
  method.method_name = name;
  method.interface_version = kViewManagerVersion;
  method.since_version = since_version;
  return method;
}

}  // namespace

std::unique_ptr<Binding::Request> CreateOpenDynamicViewRequest(const ViewSpec& specification,
                                                               unsigned int& view_id,
                                                               Units& snapshot) {
  return BuildRequest<const ViewSpec&, unsigned int&, Units&>(
      Method(1, "OpenDynamicView", 1), {"specification", "viewID", "snapshot"}, specification,
      view_id, snapshot);
}

std::unique_ptr<Binding::Request> CreateOpenStaticViewRequest(const ViewSpec& specification,
                                                              Units& snapshot) {
  return BuildRequest<const ViewSpec&, Units&>(
      Method(2, "OpenStaticView", 1), {"specification", "snapshot"}, specification, snapshot);
}

std::unique_ptr<Binding::Request> CreateAcquireUpdatesRequest(unsigned int view_id,
                                                              std::vector<ViewUpdate>& updates) {
  return BuildRequest<unsigned int, std::vector<ViewUpdate>&>(
      Method(3, "AcquireUpdates", 1), {"viewID", "updates"}, view_id, updates);
}

std::unique_ptr<Binding::Request> CreateCloseViewRequest(unsigned int view_id) {
  return BuildRequest<unsigned int>(Method(4, "CloseView", 1), {"viewID"}, view_id);
}

std::unique_ptr<Binding::Request> CreateSubscribeRequest(const SubscriptionSpec& spec,
                                                         Subscription& subscription) {
  return BuildRequest<const SubscriptionSpec&, Subscription&>(
      Method(5, "Subscribe", 2), {"spec", "subscription"}, spec, subscription);
}

std::unique_ptr<Binding::Request> CreateAddInterestRequest(const TopicSpec& spec, Topic& topic) {
  return BuildRequest<const TopicSpec&, Topic&>(Method(6, "AddInterest", 2), {"spec", "topic"},
                                                spec, topic);
}

std::unique_ptr<Binding::Request> CreateReadSubscriptionRequest(unsigned int subscriber,
                                                                SubscriptionContent& updates) {
  return BuildRequest<unsigned int, SubscriptionContent&>(
      Method(7, "ReadSubscription", 2), {"subscriber", "updates"}, subscriber, updates);
}

std::unique_ptr<Binding::Request> CreateRemoveInterestRequest(const TopicID& topic) {
  return BuildRequest<const TopicID&>(Method(8, "RemoveInterest", 2), {"topic"}, topic);
}

std::unique_ptr<Binding::Request> CreateUnsubscribeRequest(unsigned int subscriber) {
  return BuildRequest<unsigned int>(Method(9, "Unsubscribe", 2), {"subscriber"}, subscriber);
}

}  // namespace Dml::ViewManagement
