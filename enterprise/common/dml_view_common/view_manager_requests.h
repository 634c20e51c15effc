#pragma once

#include <memory>
#include <vector>

#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/ipc/request.h"

// A request for each method of the view manager. In-parameters are copied; variables must outlive
// the call and have their results when it has ended. Null when a request can't be made.

namespace Dml::ViewManagement {

std::unique_ptr<Binding::Request> CreateOpenDynamicViewRequest(
    const ViewSpec& specification, unsigned int& view_id, std::vector<Por::SharedUnit>& snapshot);
std::unique_ptr<Binding::Request> CreateOpenStaticViewRequest(
    const ViewSpec& specification, std::vector<Por::SharedUnit>& snapshot);
std::unique_ptr<Binding::Request> CreateAcquireUpdatesRequest(unsigned int view_id,
                                                              std::vector<ViewUpdate>& updates);
std::unique_ptr<Binding::Request> CreateCloseViewRequest(unsigned int view_id);
std::unique_ptr<Binding::Request> CreateSubscribeRequest(const SubscriptionSpec& spec,
                                                         Subscription& subscription);
std::unique_ptr<Binding::Request> CreateAddInterestRequest(const TopicSpec& spec, Topic& topic);
std::unique_ptr<Binding::Request> CreateReadSubscriptionRequest(unsigned int subscriber,
                                                                SubscriptionContent& updates);
std::unique_ptr<Binding::Request> CreateRemoveInterestRequest(const TopicID& topic);
std::unique_ptr<Binding::Request> CreateUnsubscribeRequest(unsigned int subscriber);

}  // namespace Dml::ViewManagement
