#pragma once

#include <cstdint>
#include <memory>

#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/dml/client/update_cache.h"
#include "enterprise/common/dml/reader.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/ipc/client_library.h"

// Subscriptions whose objects are in a service. Both are read as Dml::Subscription says: one Read
// at a time, reader and handler borrowed until the handler has been told, the job held until then,
// the subscription destroyed behind it. Both tell the service on a failed or cancelled read that
// they are over, and once more at their end; what it says is dropped. The destructors block for
// that call, so they don't run on a thread that the library needs for its end.

namespace Dml::Client {

class RemoteSubscriptionBase : public Subscription {
 protected:
  // `access_point` is not null. `id`: the view's, or the channel's number.
  RemoteSubscriptionBase(std::shared_ptr<Binding::AccessPoint> access_point, std::uint32_t id);

  const std::shared_ptr<Binding::AccessPoint> access_point_;
  const std::uint32_t id_;
};

// A dynamic view of its own: each Read is one request.
class StandaloneRemoteSubscription final : public RemoteSubscriptionBase {
 public:
  StandaloneRemoteSubscription(std::shared_ptr<Binding::AccessPoint> access_point,
                               std::uint32_t view_id);
  // Closes the view.
  ~StandaloneRemoteSubscription() override;

  std::shared_ptr<Async::Job> Read(SubscriptionReader& reader,
                                   Async::ActionHandler& handler) override;
};

// A channel of the connection's transmission: Read checks its cache out. A waiting reader runs on
// the thread of the transmission's pull, and the next pull waits for it.
//
// A second Read while one waits is told 0xFC000C. Nobody tells a reader that waits on a channel
// which the service has removed: it waits until its own cancel. After a cancel, reads are told
// 0xFC000C up to the next delivery.
class RemoteChannel final : public RemoteSubscriptionBase {
 public:
  // `cache` is not null.
  RemoteChannel(std::shared_ptr<Binding::AccessPoint> access_point,
                const ViewManagement::TopicID& topic, std::shared_ptr<InMemoryUpdateCache> cache);
  // Removes the interest.
  ~RemoteChannel() override;

  std::shared_ptr<Async::Job> Read(SubscriptionReader& reader,
                                   Async::ActionHandler& handler) override;

 private:
  const ViewManagement::TopicID topic_;
  const std::shared_ptr<InMemoryUpdateCache> cache_;
};

}  // namespace Dml::Client
