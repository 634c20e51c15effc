#pragma once

#include <memory>
#include <vector>

#include "enterprise/common/dml_view_common/view_manager.h"
#include "enterprise/common/ipc/client_library.h"

namespace Dml::ViewManagement {

// Calls the view manager of a service: each operation sends its request and blocks until its end;
// its failure is that of the call (enterprise/common/ipc/call.h). Each call stands for itself.
// Threads: any.
class ViewManager_Proxy final : public ViewManager {
 public:
  // Not null.
  explicit ViewManager_Proxy(std::shared_ptr<Binding::AccessPoint> access_point);

  Common::Error OpenDynamicView(const ViewSpec& specification, unsigned int& view_id,
                                std::vector<Por::SharedUnit>& snapshot) override;
  Common::Error OpenStaticView(const ViewSpec& specification,
                               std::vector<Por::SharedUnit>& snapshot) override;
  Common::Error AcquireUpdates(unsigned int view_id, std::vector<ViewUpdate>& updates) override;
  Common::Error CloseView(unsigned int view_id) override;
  Common::Error Subscribe(const SubscriptionSpec& spec, Subscription& subscription) override;
  Common::Error AddInterest(const TopicSpec& spec, Topic& topic) override;
  Common::Error ReadSubscription(unsigned int subscriber, SubscriptionContent& updates) override;
  Common::Error RemoveInterest(const TopicID& topic) override;
  Common::Error Unsubscribe(unsigned int subscriber) override;

 private:
  const std::shared_ptr<Binding::AccessPoint> access_point_;
};

}  // namespace Dml::ViewManagement
