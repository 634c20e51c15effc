#include "enterprise/common/dml_view_common/view_manager_proxy.h"

#include <type_traits>
#include <utility>

#include "enterprise/common/dml_view_common/view_manager_requests.h"
#include "enterprise/common/ipc/call.h"

namespace Dml::ViewManagement {

namespace {

template <class... Arguments>
Common::Error Send(Binding::AccessPoint& access_point,
                   std::unique_ptr<Binding::Request> (*create_request)(Arguments...),
                   std::type_identity_t<Arguments>... arguments) {
  std::unique_ptr<Binding::Request> request;
  try {
    request = create_request(arguments...);
  } catch (const Common::Error& error) {
    return error;
  }
  return Binding::Call(access_point, std::move(request));
}

}  // namespace

ViewManager_Proxy::ViewManager_Proxy(std::shared_ptr<Binding::AccessPoint> access_point)
    : access_point_(std::move(access_point)) {}

Common::Error ViewManager_Proxy::OpenDynamicView(const ViewSpec& specification,
                                                 unsigned int& view_id,
                                                 std::vector<Por::SharedUnit>& snapshot) {
  return Send(*access_point_, &CreateOpenDynamicViewRequest, specification, view_id, snapshot);
}

Common::Error ViewManager_Proxy::OpenStaticView(const ViewSpec& specification,
                                                std::vector<Por::SharedUnit>& snapshot) {
  return Send(*access_point_, &CreateOpenStaticViewRequest, specification, snapshot);
}

Common::Error ViewManager_Proxy::AcquireUpdates(unsigned int view_id,
                                                std::vector<ViewUpdate>& updates) {
  return Send(*access_point_, &CreateAcquireUpdatesRequest, view_id, updates);
}

Common::Error ViewManager_Proxy::CloseView(unsigned int view_id) {
  return Send(*access_point_, &CreateCloseViewRequest, view_id);
}

Common::Error ViewManager_Proxy::Subscribe(const SubscriptionSpec& spec,
                                           Subscription& subscription) {
  return Send(*access_point_, &CreateSubscribeRequest, spec, subscription);
}

Common::Error ViewManager_Proxy::AddInterest(const TopicSpec& spec, Topic& topic) {
  return Send(*access_point_, &CreateAddInterestRequest, spec, topic);
}

Common::Error ViewManager_Proxy::ReadSubscription(unsigned int subscriber,
                                                  SubscriptionContent& updates) {
  return Send(*access_point_, &CreateReadSubscriptionRequest, subscriber, updates);
}

Common::Error ViewManager_Proxy::RemoveInterest(const TopicID& topic) {
  return Send(*access_point_, &CreateRemoveInterestRequest, topic);
}

Common::Error ViewManager_Proxy::Unsubscribe(unsigned int subscriber) {
  return Send(*access_point_, &CreateUnsubscribeRequest, subscriber);
}

}  // namespace Dml::ViewManagement
