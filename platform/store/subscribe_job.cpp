#include "platform/store/subscribe_job.h"

#include <utility>

#include "platform/store/store_subscription.h"

namespace Platform::Store {

SubscribeJob::SubscribeJob(std::shared_ptr<ChangeFollower> follower,
                           std::shared_ptr<const ObjectStore> store, Dml::ViewSpec spec,
                           std::optional<unsigned int> limit,
                           std::shared_ptr<Dml::ReportReader> reader,
                           std::unique_ptr<Dml::Subscription>& subscription,
                           Async::ActionHandler& handler,
                           const Por::Construction::UnitFactory& factory)
    : ReportJob(std::move(store), spec, limit, std::move(reader), handler, factory),
      follower_(std::move(follower)),
      filter_(spec.pattern, limit),
      subscription_(&subscription) {}

void SubscribeJob::OnAllRead(const ObjectCursor& cursor) {
  auto view = std::make_shared<FollowedView>(std::move(filter_), cursor.GetPosition());
  *subscription_ = std::make_unique<StoreSubscription>(std::move(follower_), std::move(view));
}

}  // namespace Platform::Store
