#include "enterprise/common/dml/client/remote_subscription_dispatcher.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/dml/client/async_request.h"
#include "enterprise/common/dml/dml_codes.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/dml_view_common/view_manager_proxy.h"
#include "enterprise/common/dml_view_common/view_manager_requests.h"
#include "enterprise/common/por/exclude_trait_unit.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/unit_value_access.h"
#include "enterprise/serialize/serializer.h"

namespace Dml::Client {

namespace {

using ViewManagement::ViewManager_Proxy;
using ViewManagement::ViewUpdate;

constexpr Common::SourceFile kSource{"enterprise/common/dml/client/remote_subscription"};

// Literals: a lookup compares addresses of texts first, and a decorator copies none.
constexpr char kChannelId[] = "ChannelID";
constexpr char kChannelCreation[] = "ChannelCreation";
constexpr char kChannelRemoval[] = "ChannelRemoval";
constexpr char kChannelError[] = "ChannelError";

template <class Function>
Common::Error RunPull(Function&& pull) {
  return RunGuarded(Common::GetMessageText(Common::MessageRow::AsyncPerform),
                    std::forward<Function>(pull));
}

// One request for records, which go to the consumer. Its failure is the consumer's end, told before
// the handler is.
class PullUpdatesJob : public RequestRunner, public Async::ActionHandler {
 public:
  void Run() override { Send(access_point_, CreateRequest(), *this); }

  void Completed(Common::Error result) override {
    if (!result.IsFailure()) {
      // When this fails records are lost, and nothing that would come behind them is of use.
      Common::Error raised = RunPull([this] { consumer_->Consume(GetUpdates()); });
      if (raised.IsFailure()) result = std::move(raised);
    }
    if (result.IsFailure()) consumer_->Fail(result);
    TellHandler(*handler_, std::move(result));
  }
  virtual const std::vector<ViewUpdate>& GetUpdates() const = 0;
  // The variables that the request fills belong to the job.
  virtual std::unique_ptr<Binding::Request> CreateRequest() = 0;

 protected:
  PullUpdatesJob(std::shared_ptr<Binding::AccessPoint> access_point, Consumer& consumer,
                 Async::ActionHandler& handler)
      : access_point_(std::move(access_point)), consumer_(&consumer), handler_(&handler) {}

 private:
  const std::shared_ptr<Binding::AccessPoint> access_point_;
  Consumer* const consumer_;
  Async::ActionHandler* const handler_;
};

class PullTransmissionUpdatesJob final : public PullUpdatesJob {
 public:
  PullTransmissionUpdatesJob(std::shared_ptr<Binding::AccessPoint> access_point, Consumer& consumer,
                             Async::ActionHandler& handler, std::uint32_t transmission)
      : PullUpdatesJob(std::move(access_point), consumer, handler), transmission_(transmission) {}

  const std::vector<ViewUpdate>& GetUpdates() const override { return content_.topic_updates; }
  std::unique_ptr<Binding::Request> CreateRequest() override {
    return ViewManagement::CreateReadSubscriptionRequest(transmission_, content_);
  }

 private:
  const std::uint32_t transmission_;
  ViewManagement::SubscriptionContent content_;
};

class PullUpdates : public Async::Action {
 public:
  std::shared_ptr<Async::Job> Perform(Async::ActionHandler& handler) override {
    std::shared_ptr<PullUpdatesJob> job;
    const Common::Error error = RunPull([&] {
      job = CreateJob(access_point_, *consumer_, handler);
      job->Run();
    });
    if (error.IsFailure()) {
      // No job was started that would tell the consumer.
      consumer_->Fail(error);
      throw Common::Error(error);
    }
    return job;
  }
  virtual std::shared_ptr<PullUpdatesJob> CreateJob(
      const std::shared_ptr<Binding::AccessPoint>& access_point, Consumer& consumer,
      Async::ActionHandler& handler) = 0;

 protected:
  PullUpdates(std::shared_ptr<Binding::AccessPoint> access_point, Consumer& consumer)
      : access_point_(std::move(access_point)), consumer_(&consumer) {}

 private:
  const std::shared_ptr<Binding::AccessPoint> access_point_;
  Consumer* const consumer_;
};

class PullTransmissionUpdates final : public PullUpdates {
 public:
  PullTransmissionUpdates(std::shared_ptr<Binding::AccessPoint> access_point, Consumer& consumer)
      : PullUpdates(std::move(access_point), consumer) {}

  // Before the first Perform.
  void SetTransmission(std::uint32_t transmission) { transmission_ = transmission; }
  std::shared_ptr<PullUpdatesJob> CreateJob(
      const std::shared_ptr<Binding::AccessPoint>& access_point, Consumer& consumer,
      Async::ActionHandler& handler) override {
    return std::make_shared<PullTransmissionUpdatesJob>(access_point, consumer, handler,
                                                        transmission_);
  }

 private:
  std::uint32_t transmission_ = 0;
};

// What the service has marked a record with.
struct Marks {
  std::uint32_t channel = 0;
  bool is_creation = false;
  bool is_removal = false;
  bool is_error = false;
};

// In one walk over the traits. No unit has no marks. A channel that is named twice isn't named.
Marks ReadMarks(const Por::View::Unit* unit) {
  Marks marks;
  if (unit == nullptr) return marks;
  int channels = 0;
  auto processor = Por::MakeProcessor<const Por::View::Trait>([&](const Por::View::Trait& trait) {
    const char* const name = trait.GetName().GetText();
    if (std::strncmp(name, "Channel", 7) != 0) return;
    if (std::strcmp(name, kChannelId) == 0) {
      marks.channel = ++channels == 1 ? Por::Util::GetValue<unsigned int>(trait.GetValue(), 0) : 0;
    }
    marks.is_creation |= std::strcmp(name, kChannelCreation) == 0;
    marks.is_removal |= std::strcmp(name, kChannelRemoval) == 0;
    marks.is_error |= std::strcmp(name, kChannelError) == 0;
  });
  unit->GetTraits().ForEach(processor);
  return marks;
}

// The first units of a run as readers see them, with the received ones that they keep alive. They
// are made and go together, as the records of a run stay together in the cache.
struct ShownUnit {
  explicit ShownUnit(const Por::SharedUnit& unit) : received(unit), shown(*unit, kChannelId) {}
  const Por::SharedUnit received;
  const Por::View::ExcludeTraitUnit shown;
};
class ShownUnits : public Common::NonCopyable {
 public:
  explicit ShownUnits(std::size_t capacity)
      : units_(Allocator().allocate(capacity)), capacity_(capacity) {}
  ~ShownUnits() {
    std::destroy_n(units_, size_);
    Allocator().deallocate(units_, capacity_);
  }

  // At most as often as the capacity says.
  const Por::View::Unit* Add(const Por::SharedUnit& received) {
    return &std::construct_at(units_ + size_++, received)->shown;
  }

 private:
  using Allocator = std::allocator<ShownUnit>;

  ShownUnit* const units_;
  const std::size_t capacity_;
  std::size_t size_ = 0;
};

}  // namespace

RemoteSubscriptionDispatcher::RemoteSubscriptionDispatcher(
    std::shared_ptr<Binding::AccessPoint> access_point)
    : access_point_(std::move(access_point)) {}

RemoteSubscriptionDispatcher::~RemoteSubscriptionDispatcher() {
  End();
}

Common::Error RemoteSubscriptionDispatcher::EnsureTransmission() {
  std::shared_ptr<ProductionCycle> cycle;
  {
    const Common::MutexLock lock(mutex_);
    if (failure_.IsFailure()) return failure_;
    if (transmission_ != 0) return {};
    ViewManagement::Subscription subscription;
    Common::Error answer;
    const Common::Error raised = RunGuarded(u"Subscribe", [&] {
      // First what needs memory here: behind the answer nothing fails.
      const auto pull = std::make_shared<PullTransmissionUpdates>(access_point_, *this);
      cycle = std::make_shared<ProductionCycle>(pull);
      answer = ViewManager_Proxy(access_point_)
                   .Subscribe(ViewManagement::SubscriptionSpec(), subscription);
      pull->SetTransmission(subscription.id);
    });
    if (raised.IsFailure()) return raised;
    if (answer.IsFailure()) return answer;
    if (subscription.id == 0) {
      return {Serialization::kInconsistentCode,
              Common::GetMessageText(Common::MessageRow::SerializationInconsistent),
              kSource.At("EnsureTransmission", 10)};
    }
    transmission_ = subscription.id;
    cycle_ = cycle;
  }
  // A pull that ends at once calls Fail here, and readers: not under the lock.
  cycle->Start(*this);
  return {};
}

std::uint32_t RemoteSubscriptionDispatcher::GetTransmission() {
  const Common::MutexLock lock(mutex_);
  return transmission_;
}

std::unique_ptr<RemoteChannel> RemoteSubscriptionDispatcher::CreateChannel(std::uint32_t number) {
  ViewManagement::TopicID topic;
  topic.interest = number;
  std::shared_ptr<InMemoryUpdateCache> cache;
  {
    const Common::MutexLock lock(mutex_);
    topic.subscriber = transmission_;
    Channel& channel = FindChannel(number, cache);
    channel.held.reset();
  }
  return std::make_unique<RemoteChannel>(access_point_, topic, std::move(cache));
}

void RemoteSubscriptionDispatcher::End() {
  std::shared_ptr<ProductionCycle> cycle;
  {
    const Common::MutexLock lock(mutex_);
    cycle = std::move(cycle_);
  }
  if (cycle == nullptr) return;
  cycle->Cancel();
  cycle.reset();  // waits: nothing comes from now on
  Fail(Common::Error(kViewClosingCode, Common::GetMessageText(Common::MessageRow::DmlViewClosing),
                     kSource.At("End", 20)));
  try {
    ViewManager_Proxy(access_point_).Unsubscribe(GetTransmission());
  } catch (const std::bad_alloc&) {
    // The service finds out when the connection ends.
  }
}

void RemoteSubscriptionDispatcher::Consume(const std::vector<ViewUpdate>& records) {
  Run run;  // of `current`
  std::uint32_t current = 0;
  for (const ViewUpdate& record : records) {
    const Marks marks = ReadMarks(record.key.get());
    if (marks.channel != current) {
      Deliver(current, run);
      current = marks.channel;
    }
    if (record.key == nullptr) {
      SafeInvoke([&] { NotNull(record.key); });
    } else if (marks.is_creation) {
      // Carries nothing.
    } else if (marks.is_removal) {
      run.received.clear();
      RemoveChannel(current);
    } else if (marks.is_error) {
      run.received.clear();
      FindCache(current)->Fail(Por::Util::GetValue<Common::Error>(*record.key, Common::Error()));
    } else {
      run.received.push_back(&record);
    }
  }
  Deliver(current, run);
}

void RemoteSubscriptionDispatcher::Fail(const Common::Error& error) {
  std::map<std::uint32_t, Channel> channels;
  {
    const Common::MutexLock lock(mutex_);
    failure_ = error;
    known_channels_.clear();
    channels.swap(channels_);
  }
  for (const auto& [number, channel] : channels) {
    if (const std::shared_ptr<InMemoryUpdateCache> cache = channel.cache.lock()) {
      cache->Fail(error);
    }
  }
}

RemoteSubscriptionDispatcher::Channel& RemoteSubscriptionDispatcher::FindChannel(
    std::uint32_t number, std::shared_ptr<InMemoryUpdateCache>& cache) {
  Channel*& known = known_channels_[number];
  if (known == nullptr) known = &channels_[number];
  Channel& channel = *known;
  cache = channel.cache.lock();
  if (cache == nullptr) {
    cache = std::make_shared<InMemoryUpdateCache>(failure_);
    channel.held = cache;
    channel.cache = cache;
  }
  return channel;
}

std::shared_ptr<InMemoryUpdateCache> RemoteSubscriptionDispatcher::FindCache(std::uint32_t number) {
  std::shared_ptr<InMemoryUpdateCache> cache;
  const Common::MutexLock lock(mutex_);
  FindChannel(number, cache);
  return cache;
}

void RemoteSubscriptionDispatcher::RemoveChannel(std::uint32_t number) {
  decltype(channels_)::node_type removed;  // goes, with what was kept, behind the lock
  const Common::MutexLock lock(mutex_);
  known_channels_.erase(number);
  removed = channels_.extract(number);
}

void RemoteSubscriptionDispatcher::Deliver(std::uint32_t number, Run& run) {
  if (run.received.empty()) return;
  run.shown.clear();
  if (run.received.size() == 1) {
    const ViewUpdate& record = *run.received.front();
    const auto unit = std::make_shared<const ShownUnit>(record.key);
    run.shown.push_back({record.type, {unit, &unit->shown}, record.packed_update});
  } else {
    const auto units = std::make_shared<ShownUnits>(run.received.size());
    for (const ViewUpdate* const record : run.received) {
      run.shown.push_back({record->type, {units, units->Add(record->key)}, record->packed_update});
    }
  }
  run.received.clear();
  FindCache(number)->Take(run.shown);
}

}  // namespace Dml::Client
