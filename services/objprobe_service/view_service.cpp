#include "services/objprobe_service/view_service.h"

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include "core/common/line_tag.h"
#include "enterprise/common/dml_view_common/view_manager.h"
#include "platform/console/error_text.h"
#include "platform/store/guarded_call.h"
#include "platform/store/limit_option.h"
#include "services/objprobe_service/dynamic_view.h"
#include "services/objprobe_service/reply_writer.h"
#include "services/objprobe_service/service_error.h"
#include "services/objprobe_service/snapshot_call.h"
#include "services/objprobe_service/transmission.h"
#include "services/objprobe_service/view_budget.h"
#include "services/objprobe_service/view_request.h"

namespace ObjProbeService {

namespace {

using Platform::Ipc::ServerCall;

constexpr Common::SourceFile kSource{"services/objprobe_service/view_service"};
constexpr std::uint32_t kNewestVersion = Dml::ViewManagement::kViewManagerVersion;

}  // namespace

// What a session keeps. Calls that are being answered keep it alive.
class ViewService::Connection final : public std::enable_shared_from_this<Connection>,
                                      public Common::NonCopyable {
 public:
  using Call = std::shared_ptr<ServerCall>;

  Connection(ViewService& service, std::string client)
      : service_(service),
        client_(std::move(client)),
        budget_(std::make_shared<ViewBudget>(service.limits_)) {}

  void Answer(const Call& call) {
    const std::uint32_t number = call->GetMethodNumber();
    if (call->GetComponentId() != Dml::ViewManagement::kViewManagerId ||
        !HasMethod(number, kNewestVersion)) {
      return call->Fail(MakeServiceError(kUnknownMethod, kSource.At("Answer", 10)));
    }
    const auto method = static_cast<ViewMethod>(number);
    const Common::Error failure = Platform::Store::RunGuarded(u"Answer", [&] {
      if (!HasMethod(number, service_.version_)) {
        throw MakeServiceError(kUnknownMethod, kSource.At("Answer", 20));
      }
      Perform(call, method, ReadViewRequest(method, call->GetPacket()));
    });
    if (failure.IsFailure()) SendFailure(*call, method, failure);
  }

  void Close() {
    std::map<unsigned int, DynamicView> views;
    std::shared_ptr<Transmission> transmission;
    std::deque<std::shared_ptr<SnapshotCall>> waiting;
    {
      const std::lock_guard lock(mutex_);
      is_closed_ = true;
      views.swap(views_);
      transmission.swap(transmission_);
      waiting.swap(waiting_);
    }
    if (transmission != nullptr) {
      transmission->End(MakeServiceError(kViewClosing, kSource.At("Close", 30)));
    }
  }

 private:
  void Perform(const Call& call, ViewMethod method, ViewRequest request) {
    switch (method) {
      case ViewMethod::kOpenStaticView:
        return OpenStaticView(call, std::move(request));
      case ViewMethod::kOpenDynamicView:
        return OpenDynamicView(call, std::move(request));
      case ViewMethod::kAcquireUpdates:
        return PullView(call, FindView(request.view), service_.timer_);
      case ViewMethod::kCloseView:
        CloseView(request.view);
        break;
      case ViewMethod::kSubscribe:
        return AnswerSubscribe(*call);
      case ViewMethod::kAddInterest:
        return AddInterest(call, std::move(request));
      case ViewMethod::kReadSubscription:
        return FindTransmission(request.subscriber)->Pull(call);
      case ViewMethod::kRemoveInterest: {
        const Common::Error failure =
            FindTransmission(request.subscriber)->RemoveChannel(request.channel);
        if (failure.IsFailure()) throw Common::Error(failure);
        break;
      }
      case ViewMethod::kUnsubscribe:
        Unsubscribe(request.subscriber);
        break;
    }
    SendSuccess(*call, method);
  }

  void OpenStaticView(const Call& call, ViewRequest request) {
    auto reply = std::make_unique<ReplyWriter>(ViewMethod::kOpenStaticView);
    reply->BeginSnapshot();
    StartSnapshot(
        call, ViewMethod::kOpenStaticView, std::move(request), std::move(reply), nullptr,
        [](Common::Error result, const auto&) { return result; }, [] {});
  }

  void OpenDynamicView(const Call& call, ViewRequest request) {
    const auto share = TakeShare(request);
    const unsigned int id = ReserveView();
    auto reply = std::make_unique<ReplyWriter>(ViewMethod::kOpenDynamicView);
    reply->WriteViewId(id);
    reply->BeginSnapshot();
    StartSnapshot(
        call, ViewMethod::kOpenDynamicView, std::move(request), std::move(reply), share,
        [this, share, id](Common::Error result, auto subscription) {
          if (!result.IsFailure()) KeepView(id, {std::move(subscription), share});
          return result;
        },
        [this, id] { CloseView(id); });
  }

  void AddInterest(const Call& call, ViewRequest request) {
    const auto transmission = FindTransmission(request.subscriber);
    const auto share = TakeShare(request);
    const unsigned int channel = transmission->ReserveChannel();
    auto reply = std::make_unique<ReplyWriter>(ViewMethod::kAddInterest);
    reply->BeginTopic({transmission->GetId(), channel});
    StartSnapshot(
        call, ViewMethod::kAddInterest, std::move(request), std::move(reply), share,
        [transmission, share, channel](Common::Error result, auto subscription) {
          if (result.IsFailure()) return result;
          try {
            return transmission->OpenChannel(channel, std::move(subscription), share);
          } catch (const std::bad_alloc&) {
            transmission->End(Common::Error::OutOfMemory());
            throw;
          }
        },
        [transmission, channel] {
          try {
            transmission->RemoveChannel(channel);
          } catch (const std::bad_alloc&) {
            transmission->End(Common::Error::OutOfMemory());
          }
        });
  }

  // Reads the store for the call as soon as that is this connection's turn. `end` and `undo` are
  // those of the snapshot call, but may throw, and use this.
  template <class End, class Undo>
  void StartSnapshot(const Call& call, ViewMethod method, ViewRequest request,
                     std::unique_ptr<ReplyWriter> reply, std::shared_ptr<ViewBudget::Share> share,
                     End end, Undo undo) {
    const auto snapshot = std::make_shared<SnapshotCall>(
        call, method, std::move(request.spec), std::move(reply), service_.limits_.max_reply_bytes,
        std::move(share),
        [self = shared_from_this(), end](Common::Error result, auto subscription) {
          const Common::Error raised = Platform::Store::RunGuarded(
              u"Answer", [&] { result = end(result, std::move(subscription)); });
          if (raised.IsFailure()) result = raised;
          {
            const std::lock_guard lock(self->mutex_);
            --self->running_;
          }
          self->StartWaiting();
          return result;
        },
        [self = shared_from_this(), undo] { Platform::Store::RunGuarded(u"Undo", undo); });
    call->SetCancelCallback([weak = std::weak_ptr<SnapshotCall>(snapshot)] {
      if (const auto target = weak.lock()) target->Cancel();
    });
    {
      const std::lock_guard lock(mutex_);
      if (is_closed_) return;
      waiting_.push_back(snapshot);
    }
    StartWaiting();
  }

  // By a loop of one thread, as a call may end inside its start.
  void StartWaiting() {
    std::unique_lock lock(mutex_);
    if (is_starting_) return;
    is_starting_ = true;
    while (!waiting_.empty() && running_ < service_.limits_.max_reports) {
      ++running_;
      const auto next = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      next->Start(*service_.office_);
      lock.lock();
    }
    is_starting_ = false;
  }

  std::shared_ptr<ViewBudget::Share> TakeShare(const ViewRequest& request) {
    const bool is_limited = Platform::Store::GetLimit(request.spec.options.get()).has_value();
    auto share = budget_->Take(request.size, is_limited);
    if (share == nullptr) throw MakeServiceError(kTooManyViews, kSource.At("TakeShare", 40));
    return share;
  }

  unsigned int ReserveView() {
    const std::lock_guard lock(mutex_);
    do {
      ++last_view_;
    } while (last_view_ == 0 || views_.contains(last_view_));
    return last_view_;
  }
  void KeepView(unsigned int id, DynamicView view) {
    const std::lock_guard lock(mutex_);
    if (!is_closed_) views_.emplace(id, std::move(view));
  }
  DynamicView FindView(unsigned int id) {
    const std::lock_guard lock(mutex_);
    const auto found = views_.find(id);
    if (found == views_.end()) throw MakeServiceError(kUnknownView, kSource.At("FindView", 50));
    return found->second;
  }
  void CloseView(unsigned int id) {
    std::map<unsigned int, DynamicView>::node_type closed;  // goes without the lock
    const std::lock_guard lock(mutex_);
    closed = views_.extract(id);
    if (closed.empty()) throw MakeServiceError(kUnknownView, kSource.At("CloseView", 60));
  }

  // Of a transmission that the client doesn't learn of nothing stays.
  void AnswerSubscribe(ServerCall& call) {
    ReplyWriter reply(ViewMethod::kSubscribe);
    const unsigned int id = Subscribe();
    const auto undo = [&] { Platform::Store::RunGuarded(u"Undo", [&] { Unsubscribe(id); }); };
    try {
      reply.WriteSubscription(id);
      reply.Finish();
    } catch (const std::bad_alloc&) {
      undo();
      throw;
    }
    if (!reply.Send(call)) undo();
  }
  unsigned int Subscribe() {
    const std::lock_guard lock(mutex_);
    if (transmission_ != nullptr && !transmission_->GetFailure().IsFailure()) {
      throw MakeServiceError(kSecondTransmission, kSource.At("Subscribe", 70));
    }
    unsigned int id = 0;
    while (id == 0) id = ++service_.last_transmission_;
    transmission_ = std::make_shared<Transmission>(
        id, service_.limits_, service_.timer_,
        [log = service_.log_, client = client_](const std::string& what,
                                                const Common::Error& failure) {
          log(client + ": " + what + " failed: " + Platform::Console::DescribeError(failure));
        });
    return id;
  }
  std::shared_ptr<Transmission> FindTransmission(unsigned int id) {
    const std::lock_guard lock(mutex_);
    if (transmission_ == nullptr || transmission_->GetId() != id) {
      throw MakeServiceError(kUnknownTransmission, kSource.At("FindTransmission", 80));
    }
    return transmission_;
  }
  void Unsubscribe(unsigned int id) {
    const auto transmission = FindTransmission(id);
    {
      const std::lock_guard lock(mutex_);
      if (transmission_ == transmission) transmission_.reset();
    }
    transmission->End(MakeServiceError(kViewClosing, kSource.At("Unsubscribe", 90)));
  }

  ViewService& service_;
  const std::string client_;
  const std::shared_ptr<ViewBudget> budget_;

  std::mutex mutex_;  // guards the fields below
  bool is_closed_ = false;
  std::map<unsigned int, DynamicView> views_;
  unsigned int last_view_ = 0;
  std::shared_ptr<Transmission> transmission_;
  std::deque<std::shared_ptr<SnapshotCall>> waiting_;  // for their turn to read the store
  std::size_t running_ = 0;                            // that read it
  bool is_starting_ = false;
};

class ViewService::ViewSession final : public Platform::Ipc::Session {
 public:
  explicit ViewSession(std::shared_ptr<Connection> connection)
      : connection_(std::move(connection)) {}
  void OnCall(std::shared_ptr<ServerCall> call) override { connection_->Answer(call); }
  void OnClosed() override { connection_->Close(); }

 private:
  const std::shared_ptr<Connection> connection_;
};

ViewService::ViewService(std::unique_ptr<Dml::PostOffice> office, const ServiceLimits& limits,
                         unsigned int version, Log log)
    : limits_(limits),
      version_(version),
      log_(std::move(log)),
      timer_(limits.pull_wait),
      office_(std::move(office)) {}

ViewService::~ViewService() = default;

std::unique_ptr<Platform::Ipc::Session> ViewService::Open(const std::string& client) {
  return std::make_unique<ViewSession>(std::make_shared<Connection>(*this, client));
}

std::vector<Platform::Ipc::InterfaceVersion> ViewService::GetInterfaces() const {
  return {{Dml::ViewManagement::kViewManagerId, version_, 0}};
}

}  // namespace ObjProbeService
