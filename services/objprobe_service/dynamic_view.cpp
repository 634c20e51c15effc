#include "services/objprobe_service/dynamic_view.h"

#include <cstdint>
#include <exception>
#include <mutex>
#include <new>
#include <utility>

#include "core/common/line_tag.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job.h"
#include "services/objprobe_service/reply_writer.h"
#include "services/objprobe_service/service_error.h"

namespace ObjProbeService {

namespace {

using Dml::ViewManagement::kUpdateCreated;
using Dml::ViewManagement::kUpdateDeleted;
using Dml::ViewManagement::kUpdateUpdated;

constexpr Common::SourceFile kSource{"services/objprobe_service/dynamic_view"};
constexpr ViewMethod kMethod = ViewMethod::kAcquireUpdates;

struct TooManyObjects {};

Common::Error MakeTooManyObjects() {
  return MakeServiceError(kTooManyViews, kSource.At("MakeTooManyObjects", 10));
}

// One pull. It keeps itself alive until it is answered.
class ViewPull final : public Dml::SubscriptionReader,
                       public PullTimer::Waiter,
                       public std::enable_shared_from_this<ViewPull>,
                       private Async::ActionHandler {
 public:
  ViewPull(std::shared_ptr<Platform::Ipc::ServerCall> call,
           std::shared_ptr<ViewBudget::Share> share, PullTimer& timer)
      : call_(std::move(call)), share_(std::move(share)), timer_(&timer), reply_(kMethod) {
    reply_.BeginUpdates();
  }

  void Start(Dml::Subscription& subscription) {
    {
      const std::lock_guard lock(mutex_);
      self_ = shared_from_this();
    }
    std::shared_ptr<Async::Job> job;
    try {
      job = subscription.Read(*this, *this);
    } catch (const std::bad_alloc&) {
      return Completed(Common::Error::OutOfMemory());
    }
    if (job == nullptr) return;
    bool is_cancelled = false;
    {
      const std::lock_guard lock(mutex_);
      if (self_ == nullptr) return;
      job_ = job;
      is_cancelled = is_cancelled_;
    }
    if (is_cancelled) return job->Cancel();
    BeginWait(*job);
  }

  // The client takes no answer any more.
  void Cancel() {
    std::shared_ptr<Async::Job> job;
    {
      const std::lock_guard lock(mutex_);
      is_cancelled_ = true;
      job = job_;
    }
    if (job != nullptr) job->Cancel();
  }

  void OnWaited(std::uint64_t) override {
    std::shared_ptr<Async::Job> job;
    {
      const std::lock_guard lock(mutex_);
      has_waited_ = true;
      job = job_;
    }
    if (job != nullptr) job->Cancel();
  }

  using SubscriptionReader::OnCreated;
  using SubscriptionReader::OnDeleted;
  using SubscriptionReader::OnUpdated;
  void OnCreated(const Por::View::Unit& object) override {
    // What ends the read isn't told.
    if (!share_->AddObject()) throw TooManyObjects();
    reply_.WriteItem(EncodedUpdate{kUpdateCreated, EncodeUnit(object), {}});
  }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    reply_.WriteItem(EncodedUpdate{kUpdateUpdated, EncodeUnit(key), EncodeUnit(diff)});
  }
  void OnDeleted(const Por::View::Unit& key) override {
    share_->RemoveObject();
    reply_.WriteItem(EncodedUpdate{kUpdateDeleted, EncodeUnit(key), {}});
  }

 private:
  // A pull that can't be timed ends at once.
  void BeginWait(Async::Job& job) {
    try {
      const std::lock_guard lock(mutex_);
      if (self_ != nullptr) wait_ = timer_->Add(weak_from_this());
    } catch (const std::exception&) {
      job.Cancel();
    }
  }

  void Completed(Common::Error result) override {
    std::shared_ptr<ViewPull> self;
    std::shared_ptr<Async::Job> job;
    std::uint64_t wait = 0;
    bool is_empty = false;
    {
      const std::lock_guard lock(mutex_);
      self.swap(self_);
      job.swap(job_);
      wait = wait_;
      is_empty = has_waited_ && result.HoldsCode(Async::kCanceledCode);
    }
    if (wait != 0) timer_->Remove(wait);
    if (share_->IsExceeded()) result = MakeTooManyObjects();
    if (result.IsFailure() && !is_empty) return SendFailure(*call_, kMethod, result);
    try {
      reply_.Send(*call_);
    } catch (const std::bad_alloc&) {
      call_->Fail(Common::Error::OutOfMemory());
    }
  }

  const std::shared_ptr<Platform::Ipc::ServerCall> call_;
  const std::shared_ptr<ViewBudget::Share> share_;
  PullTimer* const timer_;
  ReplyWriter reply_;  // of the thread that delivers

  std::mutex mutex_;                // guards the fields below
  std::shared_ptr<ViewPull> self_;  // while the store uses this object
  std::shared_ptr<Async::Job> job_;
  std::uint64_t wait_ = 0;  // in the timer, 0: none
  bool has_waited_ = false;
  bool is_cancelled_ = false;
};

}  // namespace

void PullView(std::shared_ptr<Platform::Ipc::ServerCall> call, const DynamicView& view,
              PullTimer& timer) {
  if (view.share->IsExceeded()) return SendFailure(*call, kMethod, MakeTooManyObjects());
  const auto pull = std::make_shared<ViewPull>(call, view.share, timer);
  call->SetCancelCallback([weak = std::weak_ptr<ViewPull>(pull)] {
    if (const auto target = weak.lock()) target->Cancel();
  });
  pull->Start(*view.subscription);
}

}  // namespace ObjProbeService
