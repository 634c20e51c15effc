#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "core/common/unix/mutex.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/dml/reader.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "platform/store/object_store.h"
#include "platform/store/view_filter.h"

namespace Platform::Store {

// A subscription between the threads that take part in it: the one that reads it, the one that
// follows the store, and the one that delivers.
//
// A read goes through: begun (it waits), given an outcome (events, or why there are none), taken
// for delivery, told. Until it is taken, End can end it with another result; events that it then
// leaves behind are the next read's, so that none is lost. Exactly one of Deliver and End tells the
// handler, with no lock held.
//
// A delivery may outlast the read for which it was posted, and take the next one. So there is never
// more than one. Only the following thread makes outcomes, of a view that NeedsLook, and none comes
// up while a delivery runs: what a delivery leaves behind is alone there.
class FollowedView : public Common::NonCopyable {
 public:
  using Updates = std::vector<Dml::ViewManagement::ViewUpdate>;

  // `position` is where `filter` stands.
  FollowedView(ViewFilter filter, ChangePosition position);

  // Up to where the filter has seen the changes. These two are for the following thread alone.
  ChangePosition position;
  ViewFilter filter;

  // Begins a read and returns its number, none while another one runs. `reader` and `handler` are
  // borrowed until the handler is told.
  std::optional<std::uint64_t> Begin(Dml::SubscriptionReader& reader,
                                     Async::ActionHandler& handler);
  // Ends that read, or whichever there is, with `result` if it waits still; the handler is told
  // inside the call.
  void End(std::uint64_t number, const Common::Error& result);
  void End(const Common::Error& result);

  bool IsWaiting() const;
  // It waits, and there is nothing to deliver.
  bool NeedsLook() const;
  // There is something to deliver.
  bool HasOutcome() const;
  // The outcome of the read that waits, for a view that NeedsLook has found without one. Events
  // come before a failure; none are no outcome.
  void SetUpdates(Updates updates);
  void SetFailure(const Common::Error& failure);

  // Announces the call of Deliver that must follow, unless DropDelivery does. False if there is
  // nothing to deliver, nobody to deliver it to, or another delivery on its way.
  bool PrepareDelivery();
  void DropDelivery();
  // Takes the read and its outcome, calls the reader, tells the handler. Without them, as the read
  // was ended meanwhile, it only ends the delivery. An exception of the reader that is no
  // Common::Error is the result of the read; the events behind it are the next read's. The handler
  // may destroy what it was given by.
  void Deliver();

 private:
  void EndIf(std::optional<std::uint64_t> number, const Common::Error& result);

  mutable Common::Mutex mutex_;  // guards everything below
  bool is_reading_ = false;      // from Begin until the handler is told
  bool is_delivering_ = false;   // from PrepareDelivery until right before the handler is told
  std::uint64_t number_ = 0;     // of the last read
  // Null unless a read waits.
  Dml::SubscriptionReader* reader_ = nullptr;
  Async::ActionHandler* handler_ = nullptr;
  Updates updates_;
  Common::Error failure_;
};

}  // namespace Platform::Store
