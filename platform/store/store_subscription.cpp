#include "platform/store/store_subscription.h"

#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/dml_codes.h"
#include "platform/store/file_codes.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/store_subscription"};

// One read.
class ReadJob final : public Async::BaseJob {
 public:
  ReadJob(std::shared_ptr<FollowedView> view, std::uint64_t number)
      : view_(std::move(view)), number_(number) {}
  void Cancel() override { view_->End(number_, Async::canceled_error.Get()); }

 private:
  const std::shared_ptr<FollowedView> view_;
  const std::uint64_t number_;
};

}  // namespace

Common::Error MakeClosingError() {
  return {Dml::kViewClosingCode, Common::GetMessageText(Common::MessageRow::DmlViewClosing),
          kSource.At("MakeClosingError", 10)};
}

StoreSubscription::StoreSubscription(std::shared_ptr<ChangeFollower> follower,
                                     std::shared_ptr<FollowedView> view)
    : follower_(std::move(follower)), view_(std::move(view)) {}

StoreSubscription::~StoreSubscription() {
  view_->End(MakeClosingError());
}

std::shared_ptr<Async::Job> StoreSubscription::Read(Dml::SubscriptionReader& reader,
                                                    Async::ActionHandler& handler) {
  // The handler may destroy this object before Serve returns.
  const std::shared_ptr<ChangeFollower> follower = follower_;
  const std::shared_ptr<FollowedView> view = view_;
  const std::optional<std::uint64_t> number = view->Begin(reader, handler);
  if (!number) {
    handler.Completed({Dml::kAlreadyRunningCode,
                       Common::GetMessageText(Common::MessageRow::DmlAlreadyRunning),
                       kSource.At("Read", 20)});
    return nullptr;
  }
  Common::Error failure;
  try {
    auto job = std::make_shared<ReadJob>(view, *number);
    if (follower->Serve(view)) return job;
    failure = Common::Error(Dml::kDisposedObjectCode,
                            Common::GetMessageText(Common::MessageRow::DmlDisposedObject),
                            kSource.At("Read", 30));
  } catch (const std::system_error& error) {
    failure = MakeSystemError(Core::kFileReadFailure, follower->GetStore().GetPath(),
                              error.code().value(), kSource.At("Read", 40));
  } catch (const std::bad_alloc&) {
    failure = Common::Error::OutOfMemory();
  }
  view->End(*number, failure);
  return nullptr;
}

}  // namespace Platform::Store
