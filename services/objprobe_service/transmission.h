#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/dml/reader.h"
#include "platform/ipc/server.h"
#include "services/objprobe_service/encoded_records.h"
#include "services/objprobe_service/pull_timer.h"
#include "services/objprobe_service/service_limits.h"
#include "services/objprobe_service/view_budget.h"

namespace ObjProbeService {

// The updates of all interests of one client in one stream, which it pulls.
//
// Each interest has a channel. All records of a channel come in this order and have the trait
// ChannelID on their first unit:
//
//   ChannelCreation   nil; the channel is there
//   updates           created, updated, deleted, in the order of their commits
//   ChannelError      the error as value; nothing but the removal comes behind it
//   ChannelRemoval    nil; the last record
//
// What waits to be pulled is bounded (ServiceLimits), but for the size of the record that comes
// last. When there would be more, the transmission fails: its channels end, its memory goes, and
// all that is asked of it is answered by that failure. A client that pulls doesn't come to that by
// its updates: while more than half of the bound waits, channels leave the changes in the store's
// log, each behind one update at most, that may already be on its way. So half of the bound waits,
// one update of each channel, and what isn't an update, which alone is held to the bound then.
// They do so until the time of the timer has passed since the first of them began to, or since the
// last pull, whichever is later.
//
// It fails, too, when an answer with records doesn't go out, for want of memory or because its call
// is over: they are lost, and the client doesn't go on behind a gap that it can't see.
//
// An answer ends in front of a ChannelError that follows an update, as a client drops the updates
// that stand before it in the same answer.
//
// Threads: any. Nothing is held during calls into calls, subscriptions and the timer's waiters.
class Transmission final : public PullTimer::Waiter,
                           public std::enable_shared_from_this<Transmission>,
                           public Common::NonCopyable {
 public:
  // Told when the transmission or a channel of it fails; `what` says which.
  using OnFailure = std::function<void(const std::string& what, const Common::Error& failure)>;

  // `timer` must outlive it.
  Transmission(unsigned int id, const ServiceLimits& limits, PullTimer& timer,
               OnFailure on_failure);
  ~Transmission() override;

  unsigned int GetId() const { return id_; }
  // Why it has failed or ended; success as long as it runs.
  Common::Error GetFailure() const;

  // Answers ReadSubscription: at once when something waits or it has failed or ended, else when
  // something comes or the time of the timer has passed, then with nothing. A second call while one
  // waits is refused. A cancel of the call ends the wait.
  void Pull(std::shared_ptr<Platform::Ipc::ServerCall> call);

  // A number for a channel, never 0. Throws the failure.
  unsigned int ReserveChannel();
  // The channel is there and follows the subscription.
  Common::Error OpenChannel(unsigned int channel, std::unique_ptr<Dml::Subscription> subscription,
                            std::shared_ptr<ViewBudget::Share> share);
  Common::Error RemoveChannel(unsigned int channel);

  // Ends the channels and the waiting pull, which is told `reason`. The second call does nothing.
  void End(const Common::Error& reason);

 private:
  class Channel;
  using Channels = std::map<unsigned int, std::shared_ptr<Channel>>;
  enum class RecordKind { kUpdate, kMark, kError };
  struct Record {
    RecordKind kind = RecordKind::kUpdate;
    EncodedUpdate update;
  };
  using Records = std::vector<Record>;
  using Call = std::shared_ptr<Platform::Ipc::ServerCall>;

  // Records and the memory that they take.
  struct Load {
    std::size_t records = 0;
    std::size_t bytes = 0;

    void Add(std::size_t cost) {
      ++records;
      bytes += cost;
    }
    void Remove(std::size_t cost) {
      --records;
      bytes -= cost;
    }
  };

  // What a change of the state leaves to be done when nothing is held any more.
  struct Aftermath {
    Call call;  // to be answered, with `answer` if that is a failure, else with `records`
    Common::Error answer;
    Records records;
    Channels ended;
    std::vector<std::shared_ptr<Channel>> resumed;  // to go on reading
    Common::Error failure;                          // of the transmission, to be told
  };

  void OnWaited(std::uint64_t number) override;

  // A record of a channel, unless it was removed. False when the channel shall read no more for
  // now.
  bool Add(const Channel& channel, Record record);
  // What the channel has added goes out, and it goes on reading, at once or when there is room.
  void Continue(const std::shared_ptr<Channel>& channel);
  static Record MakeRecord(unsigned int channel, const char* mark, const Common::Error* error);

  // With the lock held.
  bool IsOpen(const Channel& channel) const;
  bool MustWait() const;
  bool IsFull() const;  // one record more would be too much
  void Append(Record record, Aftermath& aftermath);
  void ServePull(Aftermath& aftermath);
  void Stop(const Common::Error& reason, Aftermath& aftermath);
  void TakeRecords(Records& records);
  void BeginPause(Aftermath& aftermath) noexcept;
  void EndWait(std::uint64_t& wait);
  // Without.
  void Finish(Aftermath aftermath);
  // Nobody goes on behind records that were lost.
  void FailOfLoss();
  // False when it has lost records.
  static bool Answer(const Aftermath& aftermath);

  const unsigned int id_;
  const ServiceLimits limits_;
  PullTimer* const timer_;
  const OnFailure on_failure_;

  mutable std::mutex mutex_;  // guards the fields below
  Common::Error failure_;
  Channels channels_;
  unsigned int last_channel_ = 0;
  std::deque<Record> queue_;
  Load load_;               // of the queue
  Load load_of_marks_;      // of those that are no updates
  Call pull_;               // that waits; the queue was empty when it came
  std::uint64_t wait_ = 0;  // of the pull
  // Channels that read no more until there is room, and the wait that ends their patience.
  std::vector<std::shared_ptr<Channel>> paused_;
  std::uint64_t pause_ = 0;
  bool is_patient_ = true;
};

}  // namespace ObjProbeService
