#include "services/objprobe_service/transmission.h"

#include <exception>
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

// Ends a read behind the event that it comes from; the next read gets what follows. It isn't a
// Common::Error, which would only drop the event.
struct EndOfRead {};

}  // namespace

// One interest: reads its subscription again and again and adds what it gets to the transmission.
// While a read is under way it keeps itself alive.
class Transmission::Channel final : public Dml::SubscriptionReader,
                                    public std::enable_shared_from_this<Channel>,
                                    private Async::ActionHandler {
 public:
  Channel(unsigned int number, std::weak_ptr<Transmission> transmission,
          std::unique_ptr<Dml::Subscription> subscription, std::shared_ptr<ViewBudget::Share> share)
      : number_(number),
        mark_(kChannelId, Por::GetStaticUnitFactory()->CreateDWord(number)),
        transmission_(std::move(transmission)),
        share_(std::move(share)),
        subscription_(std::move(subscription)) {}

  unsigned int GetNumber() const { return number_; }

  // Begins a read, unless the channel was closed. Throws nothing.
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
    try {
      subscription->Read(*this, *this);
    } catch (const std::bad_alloc&) {
      Completed(Common::Error::OutOfMemory());
    }
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
  void OnCreated(const Por::View::Unit& object) override {
    const auto share = GetShare();
    if (share != nullptr && !share->AddObject()) {
      failure_ = MakeServiceError(kTooManyViews, kSource.At("OnCreated", 5));
      Cut();
    }
    Note(kUpdateCreated, object, nullptr);
  }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    Note(kUpdateUpdated, key, &diff);
  }
  void OnDeleted(const Por::View::Unit& key) override {
    if (const auto share = GetShare()) share->RemoveObject();
    Note(kUpdateDeleted, key, nullptr);
  }

 private:
  void Note(unsigned int type, const Por::View::Unit& unit, const Por::View::Unit* diff) {
    Record record{RecordKind::kUpdate, {type, EncodeUnit(MarkedUnit(unit, mark_)), {}}};
    if (diff != nullptr) record.update.packed_update = EncodeUnit(*diff);
    const std::shared_ptr<Transmission> transmission = transmission_.lock();
    if (transmission == nullptr || !transmission->Add(*this, std::move(record))) Cut();
  }
  // None of a channel that is closed.
  std::shared_ptr<ViewBudget::Share> GetShare() {
    const std::lock_guard lock(mutex_);
    return share_;
  }
  [[noreturn]] void Cut() {
    is_cut_ = true;
    throw EndOfRead();
  }

  void Completed(Common::Error result) override {
    std::shared_ptr<Channel> self;
    bool is_closed = false;
    {
      const std::lock_guard lock(mutex_);
      self.swap(self_);
      is_closed = subscription_ == nullptr;
    }
    if (std::exchange(is_cut_, false)) result = failure_;
    const std::shared_ptr<Transmission> transmission = transmission_.lock();
    if (is_closed || transmission == nullptr) return;
    try {
      if (result.IsFailure()) {
        Unfollow();
        transmission->on_failure_("channel " + std::to_string(number_), result);
        transmission->Add(*this, MakeRecord(number_, kChannelError, &result));
      }
      transmission->Continue(self);
    } catch (const std::bad_alloc&) {
      // Some of the updates are lost.
      transmission->End(Common::Error::OutOfMemory());
    }
  }

  const unsigned int number_;
  const Por::TraitHolder mark_;
  const std::weak_ptr<Transmission> transmission_;
  Common::Error failure_;  // why it can't go on, if that isn't the store's
  bool is_cut_ = false;    // of the delivering thread: the read was ended by EndOfRead

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
  bool waits = false;
  {
    const std::lock_guard lock(mutex_);
    if (failure_.IsFailure()) {
      aftermath.answer = failure_;
    } else if (pull_ != nullptr) {
      aftermath.answer = MakeServiceError(kAlreadyRunning, kSource.At("Pull", 10));
    } else {
      is_patient_ = true;
      if (queue_.empty()) {
        wait_ = timer_->Add(weak_from_this());
        pull_ = call;
      } else {
        TakeRecords(aftermath.records);
      }
      EndWait(pause_);
      if (!MustWait()) {
        aftermath.resumed.swap(paused_);
      } else if (!paused_.empty()) {
        BeginPause(aftermath);
      }
    }
    if (pull_ != call) aftermath.call = call;
    waits = pull_ == call;
  }
  Finish(std::move(aftermath));
  if (!waits) return;
  // By its address alone, as the call owns the callback.
  call->SetCancelCallback([weak = weak_from_this(), pulled = call.get()] {
    const auto transmission = weak.lock();
    if (transmission == nullptr) return;
    Aftermath cancelled;
    {
      const std::lock_guard lock(transmission->mutex_);
      if (transmission->pull_.get() != pulled) return;
      cancelled.call.swap(transmission->pull_);
      transmission->EndWait(transmission->wait_);
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
  const auto channel = std::make_shared<Channel>(number, weak_from_this(), std::move(subscription),
                                                 std::move(share));
  Record creation = MakeRecord(number, kChannelCreation, nullptr);
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (failure_.IsFailure()) return failure_;
    channels_.emplace(number, channel);
    Append(std::move(creation), aftermath);
  }
  Finish(std::move(aftermath));
  Continue(channel);
  return {};
}

Common::Error Transmission::RemoveChannel(unsigned int number) {
  Record removal = MakeRecord(number, kChannelRemoval, nullptr);
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (failure_.IsFailure()) return failure_;
    const auto removed = channels_.find(number);
    if (removed == channels_.end()) {
      return MakeServiceError(kUnknownChannel, kSource.At("RemoveChannel", 20));
    }
    // Ends as one of the transmission's, should that fail by this record.
    Append(std::move(removal), aftermath);
    if (!failure_.IsFailure()) aftermath.ended.insert(channels_.extract(removed));
    ServePull(aftermath);
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
    if (number == wait_) {
      wait_ = 0;
      aftermath.call.swap(pull_);
    } else if (number == pause_) {
      pause_ = 0;
      is_patient_ = false;
      aftermath.resumed.swap(paused_);
    }
  }
  Finish(std::move(aftermath));
}

bool Transmission::Add(const Channel& channel, Record record) {
  Aftermath aftermath;
  bool goes_on = false;
  {
    const std::lock_guard lock(mutex_);
    if (!IsOpen(channel)) return false;
    Append(std::move(record), aftermath);
    goes_on = IsOpen(channel) && !MustWait();
  }
  Finish(std::move(aftermath));
  return goes_on;
}

void Transmission::Continue(const std::shared_ptr<Channel>& channel) {
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (!IsOpen(*channel)) return;
    ServePull(aftermath);
    auto& place = MustWait() ? paused_ : aftermath.resumed;
    place.push_back(channel);
    if (!paused_.empty() && pause_ == 0) BeginPause(aftermath);
  }
  Finish(std::move(aftermath));
}

Transmission::Record Transmission::MakeRecord(unsigned int channel, const char* mark,
                                              const Common::Error* error) {
  const auto& factory = *Por::GetStaticUnitFactory();
  const Por::OwnedUnit unit = error != nullptr ? factory.CreateError(*error) : factory.CreateNil();
  Por::Util::AddTrait(*unit, Por::Name::FromImmortal(mark), factory.CreateNil(), factory);
  Por::Util::AddTrait(*unit, kChannelId, factory.CreateDWord(channel), factory);
  return {error != nullptr ? RecordKind::kError : RecordKind::kMark,
          {kUpdateCreated, EncodeUnit(*unit), {}}};
}

bool Transmission::IsOpen(const Channel& channel) const {
  const auto known = channels_.find(channel.GetNumber());
  return known != channels_.end() && known->second.get() == &channel;
}

bool Transmission::MustWait() const {
  return is_patient_ && (load_.records > limits_.max_queue_records / 2 ||
                         load_.bytes > limits_.max_queue_bytes / 2);
}

// Of a client that is waited for only what doesn't wait itself counts: a channel whose updates are
// being delivered as another one fills the queue can't hold back the one that it has.
bool Transmission::IsFull() const {
  const Load& load = is_patient_ ? load_of_marks_ : load_;
  return load.records >= limits_.max_queue_records || load.bytes > limits_.max_queue_bytes;
}

// A pull that waits is served when a read ends, so that it isn't answered with a single record, or
// when much has come.
void Transmission::Append(Record record, Aftermath& aftermath) {
  if (IsFull()) {
    Stop(MakeServiceError(kUpdatesNotTaken, kSource.At("Append", 30)), aftermath);
    aftermath.failure = failure_;
    return;
  }
  const bool is_mark = record.kind != RecordKind::kUpdate;
  const std::size_t cost = GetCost(record.update);
  queue_.push_back(std::move(record));
  load_.Add(cost);
  if (is_mark) load_of_marks_.Add(cost);
  if (MustWait()) ServePull(aftermath);
}

void Transmission::ServePull(Aftermath& aftermath) {
  if (pull_ == nullptr || queue_.empty()) return;
  try {
    TakeRecords(aftermath.records);
  } catch (const std::bad_alloc&) {
    aftermath.answer = Common::Error::OutOfMemory();
  }
  aftermath.call.swap(pull_);
  EndWait(wait_);
}

void Transmission::Stop(const Common::Error& reason, Aftermath& aftermath) {
  failure_ = reason;
  std::deque<Record>().swap(queue_);
  load_ = load_of_marks_ = {};
  if (pull_ != nullptr) {
    aftermath.call.swap(pull_);
    aftermath.answer = reason;
  }
  EndWait(wait_);
  EndWait(pause_);
  paused_.clear();
  aftermath.ended.merge(channels_);
}

// Nothing is taken when there is no memory for it.
void Transmission::TakeRecords(Records& records) {
  std::size_t count = 0;
  std::size_t cost = 0;
  for (const Record& next : queue_) {
    if (count != 0 &&
        (cost >= limits_.max_pull_bytes ||
         (next.kind == RecordKind::kError && queue_[count - 1].kind == RecordKind::kUpdate))) {
      break;
    }
    ++count;
    cost += GetCost(next.update);
  }
  records.reserve(count);
  for (; count != 0; --count) {
    Record& next = queue_.front();
    const std::size_t next_cost = GetCost(next.update);
    load_.Remove(next_cost);
    if (next.kind != RecordKind::kUpdate) load_of_marks_.Remove(next_cost);
    records.push_back(std::move(next));
    queue_.pop_front();
  }
}

// A pause that can't be timed is none.
void Transmission::BeginPause(Aftermath& aftermath) noexcept {
  try {
    pause_ = timer_->Add(weak_from_this());
  } catch (const std::exception&) {
    is_patient_ = false;
    aftermath.resumed.swap(paused_);
  }
}

void Transmission::EndWait(std::uint64_t& wait) {
  if (wait != 0) timer_->Remove(std::exchange(wait, 0));
}

void Transmission::Finish(Aftermath aftermath) {
  for (const auto& [number, channel] : aftermath.ended) channel->Close();
  if (aftermath.failure.IsFailure()) on_failure_("transmission", aftermath.failure);
  if (aftermath.call != nullptr && !Answer(aftermath)) FailOfLoss();
  for (const std::shared_ptr<Channel>& channel : aftermath.resumed) channel->Follow();
}

void Transmission::FailOfLoss() {
  Aftermath aftermath;
  {
    const std::lock_guard lock(mutex_);
    if (failure_.IsFailure()) return;
    Stop(MakeServiceError(kUpdatesNotTaken, kSource.At("FailOfLoss", 40)), aftermath);
    aftermath.failure = failure_;
  }
  Finish(std::move(aftermath));
}

bool Transmission::Answer(const Aftermath& aftermath) {
  if (aftermath.answer.IsFailure()) {
    SendFailure(*aftermath.call, kPullMethod, aftermath.answer);
    return true;
  }
  try {
    ReplyWriter reply(kPullMethod);
    reply.BeginTopicUpdates();
    for (const Record& record : aftermath.records) reply.WriteItem(record.update);
    if (reply.Send(*aftermath.call)) return true;
  } catch (const std::bad_alloc&) {
    aftermath.call->Fail(Common::Error::OutOfMemory());
  }
  return aftermath.records.empty();
}

}  // namespace ObjProbeService
