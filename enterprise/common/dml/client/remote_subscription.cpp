#include "enterprise/common/dml/client/remote_subscription.h"

#include <new>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/custom_action_failure_handler.h"
#include "enterprise/common/dml/client/async_request.h"
#include "enterprise/common/dml/keep_alive.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/dml_view_common/view_manager_proxy.h"
#include "enterprise/common/dml_view_common/view_manager_requests.h"

namespace Dml::Client {

namespace {

using ViewManagement::ViewManager_Proxy;

// Tells the service that a subscription is over, as long as there is a connection. What comes of it
// is nobody's concern.
template <class Call>
class Farewell {
 public:
  Farewell(std::weak_ptr<Binding::AccessPoint> access_point, Call call)
      : access_point_(std::move(access_point)), call_(std::move(call)) {}

  void operator()() const noexcept {
    std::shared_ptr<Binding::AccessPoint> access_point = access_point_.lock();
    if (access_point == nullptr) return;
    try {
      ViewManager_Proxy proxy(std::move(access_point));
      call_(proxy);
    } catch (const std::bad_alloc&) {
      // The service finds out when the connection ends.
    }
  }

 private:
  const std::weak_ptr<Binding::AccessPoint> access_point_;
  const Call call_;
};

auto MakeCloseView(std::weak_ptr<Binding::AccessPoint> access_point, std::uint32_t view_id) {
  return Farewell(std::move(access_point),
                  [view_id](ViewManager_Proxy& proxy) { proxy.CloseView(view_id); });
}

auto MakeRemoveInterest(std::weak_ptr<Binding::AccessPoint> access_point,
                        const ViewManagement::TopicID& topic) {
  return Farewell(std::move(access_point),
                  [topic](ViewManager_Proxy& proxy) { proxy.RemoveInterest(topic); });
}

template <class Functor>
auto MakeFailureHandler(Async::ActionHandler& handler, Functor functor) {
  return std::make_shared<Async::Detail::CustomActionFailureHandler<Functor>>(&handler,
                                                                              std::move(functor));
}

class PullViewUpdatesJob final : public SmartRequestRunner {
 public:
  PullViewUpdatesJob(std::shared_ptr<Binding::AccessPoint> access_point,
                     std::shared_ptr<Async::ActionHandler> handler, std::uint32_t view_id,
                     SubscriptionReader& reader)
      : SmartRequestRunner(std::move(access_point), *handler),
        kept_handler_(std::move(handler)),
        view_id_(view_id),
        reader_(&reader) {}

  void Succeeded() override { ReadUpdates(updates_, *reader_); }
  std::unique_ptr<Binding::Request> CreateRequest() override {
    return ViewManagement::CreateAcquireUpdatesRequest(view_id_, updates_);
  }

 private:
  const std::shared_ptr<Async::ActionHandler> kept_handler_;
  const std::uint32_t view_id_;
  SubscriptionReader* const reader_;
  std::vector<ViewManagement::ViewUpdate> updates_;
};

}  // namespace

RemoteSubscriptionBase::RemoteSubscriptionBase(std::shared_ptr<Binding::AccessPoint> access_point,
                                               std::uint32_t id)
    : access_point_(std::move(access_point)), id_(id) {}

StandaloneRemoteSubscription::StandaloneRemoteSubscription(
    std::shared_ptr<Binding::AccessPoint> access_point, std::uint32_t view_id)
    : RemoteSubscriptionBase(std::move(access_point), view_id) {}

StandaloneRemoteSubscription::~StandaloneRemoteSubscription() {
  MakeCloseView(access_point_, id_)();
}

std::shared_ptr<Async::Job> StandaloneRemoteSubscription::Read(SubscriptionReader& reader,
                                                               Async::ActionHandler& handler) {
  const auto failure_handler = MakeFailureHandler(handler, MakeCloseView(access_point_, id_));
  const auto job =
      std::make_shared<PullViewUpdatesJob>(access_point_, failure_handler, id_, reader);
  job->Run();
  return KeepAlive(job, failure_handler);
}

RemoteChannel::RemoteChannel(std::shared_ptr<Binding::AccessPoint> access_point,
                             const ViewManagement::TopicID& topic,
                             std::shared_ptr<InMemoryUpdateCache> cache)
    : RemoteSubscriptionBase(std::move(access_point), topic.interest),
      topic_(topic),
      cache_(std::move(cache)) {}

RemoteChannel::~RemoteChannel() {
  MakeRemoveInterest(access_point_, topic_)();
}

std::shared_ptr<Async::Job> RemoteChannel::Read(SubscriptionReader& reader,
                                                Async::ActionHandler& handler) {
  const auto failure_handler =
      MakeFailureHandler(handler, MakeRemoveInterest(access_point_, topic_));
  return KeepAlive(cache_->CheckOut(reader, *failure_handler, failure_handler), failure_handler);
}

}  // namespace Dml::Client
