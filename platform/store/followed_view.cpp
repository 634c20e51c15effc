#include "platform/store/followed_view.h"

#include <cstddef>
#include <iterator>
#include <utility>

#include "core/common/unix/safe_assert.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "platform/store/guarded_call.h"

namespace Platform::Store {

FollowedView::FollowedView(ViewFilter filter_value, ChangePosition position_value)
    : position(std::move(position_value)), filter(std::move(filter_value)) {}

std::optional<std::uint64_t> FollowedView::Begin(Dml::SubscriptionReader& reader,
                                                 Async::ActionHandler& handler) {
  const Common::MutexLock lock(mutex_);
  if (is_reading_) return std::nullopt;
  is_reading_ = true;
  reader_ = &reader;
  handler_ = &handler;
  failure_ = Common::Error();  // of a read that was ended before it was told
  return ++number_;
}

void FollowedView::End(std::uint64_t number, const Common::Error& result) {
  EndIf(number, result);
}

void FollowedView::End(const Common::Error& result) {
  EndIf(std::nullopt, result);
}

void FollowedView::EndIf(std::optional<std::uint64_t> number, const Common::Error& result) {
  Async::ActionHandler* handler = nullptr;
  {
    const Common::MutexLock lock(mutex_);
    if (handler_ == nullptr || (number && *number != number_)) return;
    handler = std::exchange(handler_, nullptr);
    reader_ = nullptr;
    is_reading_ = false;
  }
  TellEnd(*handler, result);
}

bool FollowedView::IsWaiting() const {
  const Common::MutexLock lock(mutex_);
  return handler_ != nullptr;
}

bool FollowedView::NeedsLook() const {
  const Common::MutexLock lock(mutex_);
  return handler_ != nullptr && updates_.empty() && !failure_.IsFailure();
}

bool FollowedView::HasOutcome() const {
  const Common::MutexLock lock(mutex_);
  return !updates_.empty() || failure_.IsFailure();
}

void FollowedView::SetUpdates(Updates updates) {
  const Common::MutexLock lock(mutex_);
  SAFE_ASSERT(updates_.empty());
  updates_ = std::move(updates);
}

void FollowedView::SetFailure(const Common::Error& failure) {
  const Common::MutexLock lock(mutex_);
  failure_ = failure;
}

bool FollowedView::PrepareDelivery() {
  const Common::MutexLock lock(mutex_);
  if (handler_ == nullptr || is_delivering_) return false;
  is_delivering_ = !updates_.empty() || failure_.IsFailure();
  return is_delivering_;
}

void FollowedView::DropDelivery() {
  const Common::MutexLock lock(mutex_);
  is_delivering_ = false;
}

void FollowedView::Deliver() {
  Dml::SubscriptionReader* reader = nullptr;
  Async::ActionHandler* handler = nullptr;
  Updates updates;
  Common::Error result;
  {
    const Common::MutexLock lock(mutex_);
    if (handler_ == nullptr || (updates_.empty() && !failure_.IsFailure())) {
      is_delivering_ = false;
      return;
    }
    reader = std::exchange(reader_, nullptr);
    handler = std::exchange(handler_, nullptr);
    updates = std::exchange(updates_, {});
    // What came before a failure is read first; the next read meets it again.
    if (updates.empty()) result = failure_;
    failure_ = Common::Error();
  }
  std::size_t read = 0;
  if (!updates.empty()) {
    result = RunGuarded(u"Read", [&] {
      while (read < updates.size()) Dml::ReadUpdate(updates[read++], *reader);
    });
  }
  updates.erase(updates.begin(), std::next(updates.begin(), static_cast<std::ptrdiff_t>(read)));
  {
    const Common::MutexLock lock(mutex_);
    SAFE_ASSERT(updates_.empty());
    updates_ = std::move(updates);
    is_reading_ = false;
    is_delivering_ = false;
  }
  TellEnd(*handler, result);
}

}  // namespace Platform::Store
