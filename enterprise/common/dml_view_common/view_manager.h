#pragma once

#include <cstdint>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/dml_view_common/view_records.h"

namespace Dml::ViewManagement {

// Number of the interface, and its version as this client knows it.
inline constexpr std::uint32_t kViewManagerId = 271;
inline constexpr std::uint32_t kViewManagerVersion = 2;

// Through which a client reads the objects of a service. Parameters that are references to
// variables go out as they are and come back as the service's results.
class ViewManager : public Common::NonCopyable {
 public:
  virtual ~ViewManager() = default;

  // Version 1: views, each with a snapshot and updates of its own. A static one has no updates.
  virtual Common::Error OpenDynamicView(const ViewSpec& specification, unsigned int& view_id,
                                        std::vector<Por::SharedUnit>& snapshot) = 0;
  virtual Common::Error OpenStaticView(const ViewSpec& specification,
                                       std::vector<Por::SharedUnit>& snapshot) = 0;
  // What has happened in the view since the last time. The service may wait for something to
  // happen.
  virtual Common::Error AcquireUpdates(unsigned int view_id, std::vector<ViewUpdate>& updates) = 0;
  virtual Common::Error CloseView(unsigned int view_id) = 0;

  // Version 2: one transmission per connection with many interests, whose updates come together.
  virtual Common::Error Subscribe(const SubscriptionSpec& spec, Subscription& subscription) = 0;
  virtual Common::Error AddInterest(const TopicSpec& spec, Topic& topic) = 0;
  // `subscriber` is the id of a transmission. The service may wait for something to happen.
  virtual Common::Error ReadSubscription(unsigned int subscriber, SubscriptionContent& updates) = 0;
  virtual Common::Error RemoveInterest(const TopicID& topic) = 0;
  virtual Common::Error Unsubscribe(unsigned int subscriber) = 0;
};

}  // namespace Dml::ViewManagement
