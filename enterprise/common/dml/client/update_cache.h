#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/dml/client/consumer.h"
#include "enterprise/common/dml/reader.h"

namespace Dml::Client {

// Keeps the records of one channel until they are read; how many is not limited.
//
//   state      updates  pending job   failure     Consume  Fail      CheckOut    Cancel
//   Empty      none     none          success     Holding  Ended     Waiting     -
//   Holding    some     none          success     Holding  Draining  Empty (r)   -
//   Draining   some     none          an error    Holding  Draining  Ended (r)   -
//   Ended      none     none          an error    Holding  Ended     Ended (f)   -
//   Waiting    none     has handler   success     Empty *  Ended *   Waiting !   Abandoned *
//   Abandoned  none     lost handler  success     Holding  Ended     Abandoned ! Abandoned
//
//   (r) the reader gets the records, its handler success; (f) the handler gets the failure;
//   *  the waiting handler is told: records and success, the error, or Async::kCanceledCode;
//   !  the second handler gets 0xFC000C at once.
//
// A failure of success in Fail clears the stored one. Consume comes with a record at least.
//
// Threads: any. A waiting reader runs on the thread of Consume, any other on that of CheckOut, with
// no lock held. Behind the telling of a handler nothing of the cache is touched, but whoever calls
// Consume or Fail holds a reference meanwhile.
template <class Atomics>
class BasicInMemoryUpdateCache final : public Consumer {
 public:
  // Begins Empty, or Ended when `failure` is one.
  explicit BasicInMemoryUpdateCache(Common::Error failure = {});
  ~BasicInMemoryUpdateCache() override;

  void Consume(const std::vector<ViewManagement::ViewUpdate>& records) override;
  // The same; moves the records out and leaves an empty vector with its memory.
  void Take(std::vector<ViewManagement::ViewUpdate>& records);
  void Fail(const Common::Error& error) override;

  // Reads what there is, or leaves a job that waits for it. Null when `handler` has been told.
  // `reader` and `handler` are borrowed until then; the cache doesn't tell at its end. The job
  // holds `kept` as long as anything refers to it, the cache up to the next delivery.
  // Throws Common::Error when memory is out; then nothing has happened.
  std::shared_ptr<Async::Job> CheckOut(SubscriptionReader& reader, Async::ActionHandler& handler,
                                       std::shared_ptr<void> kept = nullptr);

 private:
  using Updates = std::vector<ViewManagement::ViewUpdate>;
  class CheckoutJob;

  // The iterators over `records` copy them or move them out.
  template <class Iterator>
  void Deliver(const Updates& records, Iterator begin, Iterator end, Common::Error result);

  // Of a vector that was read, for the next records; not of one that a burst has made large.
  static constexpr std::size_t kKeptRecords = 256;
  void KeepMemory(Updates& updates);

  typename Atomics::Mutex mutex_;                    // guards all other fields
  std::vector<ViewManagement::ViewUpdate> updates_;  // what has arrived and was not read
  std::shared_ptr<CheckoutJob> pending_;             // null when no reader waits
  Common::Error failure_;                            // success, or why no more will come
};

extern template class BasicInMemoryUpdateCache<Async::ThreadAtomics>;
using InMemoryUpdateCache = BasicInMemoryUpdateCache<Async::ThreadAtomics>;

}  // namespace Dml::Client
