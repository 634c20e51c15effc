#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "core/common/error.h"
#include "core/common/unix/mutex.h"
#include "enterprise/common/dml/client/consumer.h"
#include "enterprise/common/dml/client/production_cycle.h"
#include "enterprise/common/dml/client/remote_subscription.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/ipc/client_library.h"

namespace Dml::Client {

// The one transmission of a connection: pulls the changes of all its channels and sorts them into a
// cache for each. The service marks the first unit of a record with traits:
//
//   ChannelID        the channel's number, unsigned 32 bits; anything else counts as channel 0
//   ChannelCreation  nothing further
//   ChannelRemoval   the channel is over; what came for it in the same run is dropped, nobody told
//   ChannelError     the channel has failed; the unit's value is the error
//
// Readers never see ChannelID. What comes for a channel before it was created is kept for it. A
// transmission that has failed stays so.
//
// Threads: any. No lock is held while a cache, a reader or a handler is called.
class RemoteSubscriptionDispatcher final : public Consumer {
 public:
  // Not null.
  explicit RemoteSubscriptionDispatcher(std::shared_ptr<Binding::AccessPoint> access_point);
  // Calls End.
  ~RemoteSubscriptionDispatcher() override;

  // Subscribes, unless that was done, and starts pulling. Others who call it wait meanwhile, so it
  // is not called on a thread of the library. After a failure to subscribe the next call tries
  // again; a reply without a transmission is 0x9C0002. Once the transmission has failed or ended,
  // the error is that. A first pull that fails at once is told to the channels only.
  Common::Error EnsureTransmission();
  // 0 as long as there is none. Stays after the end.
  std::uint32_t GetTransmission();
  // The subscription of a channel that the service has named; it owns the cache from now on.
  // Channels of the same number share one. After a failure it has the failure, too.
  std::unique_ptr<RemoteChannel> CreateChannel(std::uint32_t number);
  // Ends the transmission whoever else holds the dispatcher: waits until the pull has ended, whose
  // cancel the channels are told, or 0xFC000B if none was in flight; then unsubscribes. Later calls
  // and the destructor do nothing. Neither on the thread of a pull, in a reader or handler
  // that it calls, where it would wait for itself, nor while EnsureTransmission runs.
  void End();

  void Consume(const std::vector<ViewManagement::ViewUpdate>& records) override;
  // Ends the transmission for all channels, with `error` from now on.
  void Fail(const Common::Error& error) override;

 private:
  struct Channel {
    std::shared_ptr<InMemoryUpdateCache> held;  // as long as no subscription owns the cache
    std::weak_ptr<InMemoryUpdateCache> cache;
  };

  // Adjacent records of one channel.
  struct Run {
    std::vector<const ViewManagement::ViewUpdate*> received;
    std::vector<ViewManagement::ViewUpdate> shown;  // memory for the delivery
  };

  // Under the mutex: the channel's entry and its cache, both made if there is none.
  Channel& FindChannel(std::uint32_t number, std::shared_ptr<InMemoryUpdateCache>& cache);
  std::shared_ptr<InMemoryUpdateCache> FindCache(std::uint32_t number);
  void RemoveChannel(std::uint32_t number);
  // Leaves `run` empty. No records are no delivery.
  void Deliver(std::uint32_t number, Run& run);

  const std::shared_ptr<Binding::AccessPoint> access_point_;
  Common::Mutex mutex_;                     // guards what follows
  std::shared_ptr<ProductionCycle> cycle_;  // null until it runs and behind End
  std::uint32_t transmission_ = 0;
  std::map<std::uint32_t, Channel> channels_;  // in the order in which their end is told
  // Finds an entry in the same time however many there are; null where there is none.
  std::unordered_map<std::uint32_t, Channel*> known_channels_;
  Common::Error failure_;  // success, or why the transmission has ended
};

}  // namespace Dml::Client
