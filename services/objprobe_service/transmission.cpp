#include "services/objprobe_service/transmission.h"

#include <new>
#include <utility>

#include "core/common/line_tag.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "services/objprobe_service/marked_unit.h"
#include "services/objprobe_service/reply_writer.h"
#include "services/objprobe_service/service_error.h"

namespace ObjProbeService {

namespace {

using Dml::ViewManagement::kUpdateCreated;
using Dml::ViewManagement::kUpdateDeleted;
using Dml::ViewManagement::kUpdateUpdated;

constexpr Common::SourceFile kSource{"services/objprobe_service/transmission"};
constexpr ViewMethod kPullMethod = ViewMethod::kReadSubscription;

}  // namespace

// One interest: reads its subscription again and again and adds what it gets to the transmission.
// While a read is under way it keeps itself alive.
class Transmission::Channel final : public Dml::SubscriptionReader,
                                    public std::enable_shared_from_this<Channel>,
                                    private Async::ActionHandler {
 public:
  Channel(unsigned int number, std::weak_ptr<Transmission> transmission, std::size_t max_records,
          std::size_t max_cost, std::unique_ptr<Dml::Subscription> subscription,
          std::shared_ptr<ViewBudget::Share> share)
      : number_(number),
        mark_(kChannelId, Por::GetStaticUnitFactory()->CreateDWord(number)),
        transmission_(std::move(transmission)),
        max_records_(max_records),
        max_cost_(max_cost),
        share_(std::move(share)),
        subscription_(std::move(subscription)) {}

  unsigned int GetNumber() const { return number_; }

  // Begins a read, unless the channel was closed.
  void Follow() {
    std::shared_ptr<Dml::Subscription> subscription;
    {
      const std::lock_guard lock(mutex_);
      if (subscription_ == nullptr) return;
      subscription = subscription_;
      self_ = shared_from_this();
    }
    // When the channel is closed meanwhile, this was the last reference: the read then ends as the
    // subscription goes.
    subscription->Read(*this, *this);
  }

  // Reads no more.
  void Unfollow() {
    std::shared_ptr<Dml::Subscription> subscription;
    {
      const std::lock_guard lock(mutex_);
      subscription.swap(subscription_);
    }
  }
  // It is no channel any more, even if a read is still being delivered.
  void Close() {
    Unfollow();
    std::shared_ptr<ViewBudget::Share> share;
    {
      const std::lock_guard lock(mutex_);
      share.swap(share_);
    }
  }

  using SubscriptionReader::OnCreated;
  using SubscriptionReader::OnDeleted;
  using SubscriptionReader::OnUpdated;
  void OnCreated(const Por::View::Unit& object) override { Note(kUpdateCreated, object, nullptr); }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    Note(kUpdateUpdated, key, &diff);
  }
  void OnDeleted(const Por::View::Unit& key) override { Note(kUpdateDeleted, key, nullptr); }

 private:
  // What is more than a transmission may hold isn't noted: that is its failure in any case.
  void Note(unsigned int type, const Por::View::Unit& unit, const Por::View::Unit* diff) {
    if (updates_.size() > max_records_ || cost_ > max_cost_) return;
    EncodedUpdate update{type, EncodeUnit(MarkedUnit(unit, mark_)), {}};
    if (diff != nullptr) update.packed_update = EncodeUnit(*diff);
    cost_ += GetCost(update);
    updates_.push_back(std::move(update));
  }

  void Completed(Common::Error result) override {
    std::shared_ptr<Channel> self;
    bool is_closed = false;
    {
      const std::lock_guard lock(mutex_);
      self.swap(self_);
      is_closed = subscription_ == nullptr;
    }
    Updates updates = std::exchange(updates_, {});
    cost_ = 0;
    const std::shared_ptr<Transmission> transmission = transmission_.lock();
    if (is_closed || transmission == nullptr) return;
    try {
      if (result.IsFailure()) {
        updates.push_back(MakeRecord(number_, kChannelError, &result));
        Unfollow();
        transmission->on_failure_("channel " + std::to_string(number_), result);
      }
      transmission->Add(*this, std::move(updates));
    } catch (const std::bad_alloc&) {
      // Some of the updates are lost.
      transmission->End(Common::Error::OutOfMemory());
    }
    Follow();
  }

  const unsigned int number_;
  const Por::TraitHolder mark_;
  const std::weak_ptr<Transmission> transmission_;
  const std::size_t max_records_;
  const std::size_t max_cost_;
  // Of the delivering thread.
  Updates updates_;
  std::size_t cost_ = 0;

  std::mutex mutex_;               // guards the fields below
  std::shared_ptr<Channel> self_;  // while a read is under way
  std::shared_ptr<ViewBudget::Share> share_;
  std::shared_ptr<Dml::Subscription> subscription_;
};

Transmission::Transmission(unsigned int id, const ServiceLimits& limits, PullTimer& timer,
                           OnFailure on_failure)
    : id_(id), limits_(limits), timer_(&timer), on_failure_(std::move(on_failure)) {}

Transmission::~Transmission() {
  for (const auto& [number, channel] : channels_) channel->Close();
}

Common::Error Transmission::GetFailure() const {
  const std::lock_guard lock(mutex_);
  return failure_;
}

void Transmission::Pull(Call call) {
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (failure_.IsFailure()) {
      aftermath.failure = failure_;
    } else if (pull_ != nullptr) {
      aftermath.failure = MakeServiceError(kAlreadyRunning, kSource.At("Pull", 10));
    } else if (queue_.empty()) {
      wait_ = timer_->Add(weak_from_this());
      pull_ = call;
    } else {
      TakeUpdates(aftermath.updates);
    }
    if (pull_ != call) aftermath.call = call;
  }
  if (aftermath.call != nullptr) return Finish(std::move(aftermath));
  // By its address alone, as the call owns the callback.
  call->SetCancelCallback([weak = weak_from_this(), pulled = call.get()] {
    const auto transmission = weak.lock();
    if (transmission == nullptr) return;
    Aftermath cancelled;
    {
      const std::lock_guard lock(transmission->mutex_);
      if (transmission->pull_.get() != pulled) return;
      cancelled.call.swap(transmission->pull_);
      cancelled.wait = std::exchange(transmission->wait_, 0);
    }
    transmission->Finish(std::move(cancelled));
  });
}

unsigned int Transmission::ReserveChannel() {
  const std::lock_guard lock(mutex_);
  if (failure_.IsFailure()) throw Common::Error(failure_);
  do {
    ++last_channel_;
  } while (last_channel_ == 0 || channels_.contains(last_channel_));
  return last_channel_;
}

Common::Error Transmission::OpenChannel(unsigned int number,
                                        std::unique_ptr<Dml::Subscription> subscription,
                                        std::shared_ptr<ViewBudget::Share> share) {
  const auto channel =
      std::make_shared<Channel>(number, weak_from_this(), limits_.max_queue_records,
                                limits_.max_queue_bytes, std::move(subscription), std::move(share));
  Updates creation;
  creation.push_back(MakeRecord(number, kChannelCreation, nullptr));
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (failure_.IsFailure()) return failure_;
    channels_.emplace(number, channel);
    Append(std::move(creation), aftermath);
  }
  Finish(std::move(aftermath));
  channel->Follow();
  return {};
}

Common::Error Transmission::RemoveChannel(unsigned int number) {
  Updates removal;
  removal.push_back(MakeRecord(number, kChannelRemoval, nullptr));
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (failure_.IsFailure()) return failure_;
    auto removed = channels_.extract(number);
    if (removed.empty()) {
      return MakeServiceError(kUnknownChannel, kSource.At("RemoveChannel", 20));
    }
    Append(std::move(removal), aftermath);
    aftermath.ended.insert(std::move(removed));
  }
  Finish(std::move(aftermath));
  return {};
}

void Transmission::End(const Common::Error& reason) {
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (failure_.IsFailure()) return;
    Stop(reason, aftermath);
  }
  Finish(std::move(aftermath));
}

void Transmission::OnWaited(std::uint64_t number) {
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (wait_ != number) return;
    wait_ = 0;
    aftermath.call.swap(pull_);
  }
  Finish(std::move(aftermath));
}

void Transmission::Add(const Channel& channel, Updates updates) {
  if (updates.empty()) return;
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    const auto known = channels_.find(channel.GetNumber());
    if (known == channels_.end() || known->second.get() != &channel) return;
    Append(std::move(updates), aftermath);
  }
  Finish(std::move(aftermath));
}

EncodedUpdate Transmission::MakeRecord(unsigned int channel, const char* mark,
                                       const Common::Error* error) {
  const auto& factory = *Por::GetStaticUnitFactory();
  const Por::OwnedUnit unit = error != nullptr ? factory.CreateError(*error) : factory.CreateNil();
  Por::Util::AddTrait(*unit, Por::Name::FromImmortal(mark), factory.CreateNil(), factory);
  Por::Util::AddTrait(*unit, kChannelId, factory.CreateDWord(channel), factory);
  return {kUpdateCreated, EncodeUnit(*unit), {}};
}

void Transmission::Append(Updates updates, Aftermath& aftermath) {
  for (EncodedUpdate& update : updates) {
    queue_cost_ += GetCost(update);
    queue_.push_back(std::move(update));
  }
  if (queue_.size() > limits_.max_queue_records || queue_cost_ > limits_.max_queue_bytes) {
    Stop(MakeServiceError(kUpdatesNotTaken, kSource.At("Append", 30)), aftermath);
    aftermath.has_failed = true;
  } else if (pull_ != nullptr) {
    aftermath.call.swap(pull_);
    aftermath.wait = std::exchange(wait_, 0);
    TakeUpdates(aftermath.updates);
  }
}

void Transmission::Stop(const Common::Error& reason, Aftermath& aftermath) {
  failure_ = reason;
  std::deque<EncodedUpdate>().swap(queue_);
  queue_cost_ = 0;
  aftermath.failure = reason;
  aftermath.call.swap(pull_);
  aftermath.wait = std::exchange(wait_, 0);
  aftermath.ended.merge(channels_);
}

void Transmission::TakeUpdates(Updates& updates) {
  std::size_t cost = 0;
  while (!queue_.empty() && (updates.empty() || cost < limits_.max_pull_bytes)) {
    const std::size_t next = GetCost(queue_.front());
    updates.push_back(std::move(queue_.front()));
    queue_.pop_front();
    cost += next;
    queue_cost_ -= next;
  }
}

void Transmission::Finish(Aftermath aftermath) {
  if (aftermath.wait != 0) timer_->Remove(aftermath.wait);
  for (const auto& [number, channel] : aftermath.ended) channel->Close();
  if (aftermath.has_failed) on_failure_("transmission", aftermath.failure);
  if (aftermath.call == nullptr) return;
  if (aftermath.failure.IsFailure()) {
    return SendFailure(*aftermath.call, kPullMethod, aftermath.failure);
  }
  try {
    ReplyWriter reply(kPullMethod);
    reply.BeginTopicUpdates();
    for (const EncodedUpdate& update : aftermath.updates) reply.WriteItem(update);
    reply.Send(*aftermath.call);
  } catch (const std::bad_alloc&) {
    aftermath.call->Fail(Common::Error::OutOfMemory());
  }
}

}  // namespace ObjProbeService
