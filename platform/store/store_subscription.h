#pragma once

#include <memory>

#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/dml/reader.h"
#include "platform/store/change_follower.h"
#include "platform/store/followed_view.h"

namespace Platform::Store {

// A subscription on a store. Each read waits for the next changes of its view, delivers a batch of
// them in the order of their commits, and succeeds; over all reads each change comes once.
//
// - The reader is called on a thread of the store, and so is the handler, but where a read ends
//   without a look at its changes: a refusal is told inside Read, before it returns null, a cancel
//   inside Cancel, the end of the subscription or of the post office inside their destructors.
// - While a read waits another one is told 0xFC000C; the first goes on.
// - Cancel of the job ends a read that waits with 0xF90002. One that is being delivered goes on to
//   its end. No change is lost by it: the next read has it.
// - While the store is locked a read waits on, for as long as that takes; the first look that fails
//   by it is traced at debug level, with what SQLite says. These count as a lock, too:
//   - a race for the log's own locks that SQLite gives up after many tries (SQLITE_PROTOCOL);
//   - an index of the log that only a writer can finish, as when one died while it made it
//     (SQLITE_READONLY_RECOVERY, _CANTINIT, _CANTLOCK): it lasts until a writer opens the store.
// - A read that failed can be followed by another, which goes on where the last one ended. The
//   store's failures are those of reading it; 0x40005 means that the changes can't be followed any
//   further, see ChangeLog::Check: subscribe again.
//
// Lifetime: it may go at any moment, also in a call of its reader or handler. A read that waits is
// told 0xFC000B inside the destructor; one that is being delivered goes on to its end, up to which
// it borrows its reader and handler. The post office should outlive it. When that goes first, it
// ends the reads in the same way, but waits for those that are being delivered, unless it goes in
// one of them; later reads are told 0xFC0017.
class StoreSubscription final : public Dml::Subscription {
 public:
  StoreSubscription(std::shared_ptr<ChangeFollower> follower, std::shared_ptr<FollowedView> view);
  ~StoreSubscription() override;

  std::shared_ptr<Async::Job> Read(Dml::SubscriptionReader& reader,
                                   Async::ActionHandler& handler) override;

 private:
  const std::shared_ptr<ChangeFollower> follower_;
  const std::shared_ptr<FollowedView> view_;
};

// "DML: The operation is not permitted because the view is being closed."
Common::Error MakeClosingError();

}  // namespace Platform::Store
