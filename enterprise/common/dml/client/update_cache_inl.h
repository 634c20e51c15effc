#pragma once

// The steps of BasicInMemoryUpdateCache, for those who instantiate it with atomics of their own.

#include <iterator>
#include <new>
#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/client/update_cache.h"
#include "enterprise/common/dml/dml_codes.h"
#include "enterprise/common/dml/safe_invoke.h"

namespace Dml::Client {
namespace Detail {

inline constexpr Common::SourceFile kUpdateCacheSource{
    "enterprise/common/dml/client/remote_subscription"};

// What a reader throws beside Common::Error ends its read.
inline Common::Error ReadGuarded(const std::vector<ViewManagement::ViewUpdate>& updates,
                                 SubscriptionReader& reader) {
  return RunGuarded(u"Read", [&] { ReadUpdates(updates, reader); });
}

}  // namespace Detail

// A reader that waits. Has no thread: a delivery or a cancel ends it, whoever takes the handler.
template <class Atomics>
class BasicInMemoryUpdateCache<Atomics>::CheckoutJob final : public Async::BaseJob {
 public:
  CheckoutJob(SubscriptionReader& reader, Async::ActionHandler& handler, std::shared_ptr<void> kept)
      : kept_(std::move(kept)), reader_(&reader), handler_(&handler) {}

  void Cancel() override {
    if (Async::ActionHandler* const handler = TakeHandler()) {
      TellHandler(*handler, Async::canceled_error.Get());
    }
  }

  // Null when it was taken before; then the reader may be gone, too.
  Async::ActionHandler* TakeHandler() { return handler_.exchange(nullptr); }
  SubscriptionReader& GetReader() const { return *reader_; }

 private:
  const std::shared_ptr<void> kept_;
  SubscriptionReader* const reader_;
  typename Atomics::template Pointer<Async::ActionHandler> handler_;
};

template <class Atomics>
BasicInMemoryUpdateCache<Atomics>::BasicInMemoryUpdateCache(Common::Error failure)
    : failure_(std::move(failure)) {}

template <class Atomics>
BasicInMemoryUpdateCache<Atomics>::~BasicInMemoryUpdateCache() = default;

template <class Atomics>
void BasicInMemoryUpdateCache<Atomics>::Consume(const Updates& records) {
  Deliver(records, records.begin(), records.end(), Common::Error());
}

template <class Atomics>
void BasicInMemoryUpdateCache<Atomics>::Take(Updates& records) {
  Deliver(records, std::make_move_iterator(records.begin()), std::make_move_iterator(records.end()),
          Common::Error());
  records.clear();
}

template <class Atomics>
void BasicInMemoryUpdateCache<Atomics>::Fail(const Common::Error& error) {
  const Updates none;
  Deliver(none, none.begin(), none.end(), error);
}

template <class Atomics>
template <class Iterator>
void BasicInMemoryUpdateCache<Atomics>::Deliver(const Updates& records, Iterator begin,
                                                Iterator end, Common::Error result) {
  std::shared_ptr<CheckoutJob> job;
  Async::ActionHandler* handler = nullptr;
  {
    const typename Atomics::MutexLock lock(mutex_);
    job = std::move(pending_);
    if (job != nullptr) handler = job->TakeHandler();
    // While a reader waits there is nothing else: it reads the records where they are.
    if (handler == nullptr) updates_.insert(updates_.end(), begin, end);
    failure_ = result;
  }
  if (handler == nullptr) return;
  Common::Error raised = Detail::ReadGuarded(records, job->GetReader());
  TellHandler(*handler, raised.IsFailure() ? std::move(raised) : std::move(result));
}

template <class Atomics>
std::shared_ptr<Async::Job> BasicInMemoryUpdateCache<Atomics>::CheckOut(
    SubscriptionReader& reader, Async::ActionHandler& handler, std::shared_ptr<void> kept) {
  Updates updates;
  Common::Error result;
  {
    const typename Atomics::MutexLock lock(mutex_);
    if (pending_ != nullptr) {
      result = Common::Error(kAlreadyRunningCode,
                             Common::GetMessageText(Common::MessageRow::DmlAlreadyRunning),
                             Detail::kUpdateCacheSource.At("CheckOut", 30));
    } else if (!updates_.empty()) {
      updates.swap(updates_);
    } else if (failure_.IsFailure()) {
      result = failure_;
    } else {
      try {
        pending_ = std::make_shared<CheckoutJob>(reader, handler, std::move(kept));
      } catch (const std::bad_alloc&) {
        throw Common::Error::OutOfMemory();
      }
      return pending_;
    }
  }
  if (!updates.empty()) {
    result = Detail::ReadGuarded(updates, reader);
    KeepMemory(updates);
  }
  TellHandler(handler, std::move(result));
  return nullptr;
}

template <class Atomics>
void BasicInMemoryUpdateCache<Atomics>::KeepMemory(Updates& updates) {
  updates.clear();
  if (updates.capacity() > kKeptRecords) return;
  const typename Atomics::MutexLock lock(mutex_);
  if (updates_.capacity() == 0) updates_.swap(updates);
}

}  // namespace Dml::Client
