#include "enterprise/common/dml/client/remoting.h"

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/text.h"
#include "core/common/unix/mutex.h"
#include "enterprise/common/dml/client/async_request.h"
#include "enterprise/common/dml/client/remote_subscription.h"
#include "enterprise/common/dml/client/remote_subscription_dispatcher.h"
#include "enterprise/common/dml/dml_codes.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/dml_view_common/view_manager.h"
#include "enterprise/common/dml_view_common/view_manager_requests.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"

namespace Dml::Client {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/client/remoting"};

// Of the view manager, whose subscriptions are views of their own.
constexpr std::uint32_t kViewsOnlyVersion = 1;
// Objects of a view whose caller sets no limit.
constexpr unsigned int kDefaultLimit = 2000;

using Snapshot = std::vector<Por::SharedUnit>;

Por::OwnedUnit MakeEntryPointUnit(const Core::EntryPoint& entry_point,
                                  const Por::Construction::UnitFactory& factory) {
  Por::OwnedUnit unit = factory.CreateComposite();
  Por::Util::AddProperty(*unit, "ID", factory.CreateQWord(entry_point.location), factory);
  Por::Util::AddProperty(
      *unit, "File", factory.CreateString(Common::Utf8ToString(entry_point.file.c_str())), factory);
  Por::Util::AddProperty(*unit, "Line", factory.CreateDWord(entry_point.line), factory);
  return unit;
}

// The specification as it goes to the service. The caller's units stay as they are.
ViewSpec PrepareSpec(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                     const Por::Construction::UnitFactory& factory) {
  const Por::Name limit("LimitOptions");
  // Before the copy, as options of another kind are refused here.
  const bool has_limit =
      spec.options != nullptr && Por::Util::FindProperty(*spec.options, limit) != nullptr;
  Por::OwnedUnit options = spec.options != nullptr ? Por::Util::CopyUnit(*spec.options, factory)
                                                   : factory.CreateComposite();
  if (!has_limit) {
    Por::Util::AddProperty(*options, limit, factory.CreateDWord(kDefaultLimit), factory);
  }
  Por::Util::AddProperty(*options, "EntryPoint", MakeEntryPointUnit(entry_point, factory), factory);
  return ViewSpec{spec.pattern, std::move(options)};
}

// Asks for a view and gives the objects of the reply to the reader.
class ReportCommandBase : public SmartRequestRunner {
 public:
  // The reader may be null.
  ReportCommandBase(std::shared_ptr<Binding::AccessPoint> access_point,
                    Async::ActionHandler& handler, ViewSpec spec,
                    std::shared_ptr<ReportReader> reader)
      : SmartRequestRunner(std::move(access_point), handler),
        spec_(std::move(spec)),
        reader_(std::move(reader)) {}

  // The objects end with this call, whatever the reader throws.
  void Succeeded() override {
    Snapshot snapshot;
    snapshot.swap(GetSnapshot());
    if (reader_ != nullptr) ReadObjects(snapshot, *reader_);
  }
  std::unique_ptr<Binding::Request> CreateRequest() override { return CreateViewRequest(spec_); }
  // The handler may drop the last reference to this job.
  void Completed(Common::Error result) override {
    if (result.IsFailure()) Snapshot().swap(GetSnapshot());
    SmartRequestRunner::Completed(std::move(result));
  }

 protected:
  virtual std::unique_ptr<Binding::Request> CreateViewRequest(const ViewSpec& spec) = 0;
  // Where the reply's objects are.
  virtual Snapshot& GetSnapshot() = 0;

 private:
  const ViewSpec spec_;
  const std::shared_ptr<ReportReader> reader_;
};

class OpenStaticViewCommand final : public ReportCommandBase {
 public:
  using ReportCommandBase::ReportCommandBase;

 private:
  std::unique_ptr<Binding::Request> CreateViewRequest(const ViewSpec& spec) override {
    return ViewManagement::CreateOpenStaticViewRequest(spec, snapshot_);
  }
  Snapshot& GetSnapshot() override { return snapshot_; }

  Snapshot snapshot_;
};

// The same, and a subscription for the caller behind it.
class SubscriptionCommandBase : public ReportCommandBase {
 public:
  SubscriptionCommandBase(const std::shared_ptr<Binding::AccessPoint>& access_point,
                          Async::ActionHandler& handler, ViewSpec spec,
                          std::shared_ptr<ReportReader> reader,
                          std::unique_ptr<Subscription>& subscription)
      : ReportCommandBase(access_point, handler, std::move(spec), std::move(reader)),
        access_point_(access_point),
        subscription_(&subscription) {}

  void Succeeded() override {
    ReportCommandBase::Succeeded();
    *subscription_ = CreateSubscription(access_point_);
  }

 protected:
  virtual std::unique_ptr<Subscription> CreateSubscription(
      const std::shared_ptr<Binding::AccessPoint>& access_point) = 0;

 private:
  const std::shared_ptr<Binding::AccessPoint> access_point_;
  std::unique_ptr<Subscription>* const subscription_;
};

class OpenDynamicViewCommand final : public SubscriptionCommandBase {
 public:
  using SubscriptionCommandBase::SubscriptionCommandBase;

 private:
  std::unique_ptr<Binding::Request> CreateViewRequest(const ViewSpec& spec) override {
    return ViewManagement::CreateOpenDynamicViewRequest(spec, view_id_, snapshot_);
  }
  Snapshot& GetSnapshot() override { return snapshot_; }
  std::unique_ptr<Subscription> CreateSubscription(
      const std::shared_ptr<Binding::AccessPoint>& access_point) override {
    return std::make_unique<StandaloneRemoteSubscription>(access_point, view_id_);
  }

  unsigned int view_id_ = 0;
  Snapshot snapshot_;
};

// Lets go of the dispatcher before the handler is told: whoever waits for that may end the post
// office then, and this command must not be the one that keeps a dispatcher beyond that.
class AddChannelCommand final : public SubscriptionCommandBase {
 public:
  AddChannelCommand(const std::shared_ptr<Binding::AccessPoint>& access_point,
                    Async::ActionHandler& handler, ViewSpec spec,
                    std::shared_ptr<ReportReader> reader,
                    std::unique_ptr<Subscription>& subscription,
                    std::shared_ptr<RemoteSubscriptionDispatcher> dispatcher)
      : SubscriptionCommandBase(access_point, handler, std::move(spec), std::move(reader),
                                subscription),
        dispatcher_(std::move(dispatcher)) {}

  void Succeeded() override {
    const struct Release {
      ~Release() { dispatcher.reset(); }
      std::shared_ptr<RemoteSubscriptionDispatcher>& dispatcher;
    } release{dispatcher_};
    SubscriptionCommandBase::Succeeded();
  }
  void Completed(Common::Error result) override {
    if (result.IsFailure()) dispatcher_.reset();
    SubscriptionCommandBase::Completed(std::move(result));
  }

 private:
  std::unique_ptr<Binding::Request> CreateViewRequest(const ViewSpec& spec) override {
    return ViewManagement::CreateAddInterestRequest(
        ViewManagement::TopicSpec{dispatcher_->GetTransmission(), spec}, topic_);
  }
  Snapshot& GetSnapshot() override { return topic_.content; }
  std::unique_ptr<Subscription> CreateSubscription(
      const std::shared_ptr<Binding::AccessPoint>&) override {
    return dispatcher_->CreateChannel(topic_.id.interest);
  }

  std::shared_ptr<RemoteSubscriptionDispatcher> dispatcher_;
  ViewManagement::Topic topic_;
};

template <class Command, class... Arguments>
std::shared_ptr<Async::Job> RunCommand(Arguments&&... arguments) {
  const auto command = std::make_shared<Command>(std::forward<Arguments>(arguments)...);
  command->Run();
  return command;
}

}  // namespace

// Each subscription is a view of its own.
class RemotePostOffice : public PostOffice {
 public:
  explicit RemotePostOffice(std::shared_ptr<Binding::AccessPoint> access_point)
      : access_point_(std::move(access_point)),
        factory_(std::make_unique<Por::Construction::InMemoryUnitFactory>()) {}

  std::shared_ptr<Async::Job> Subscribe(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                                        std::shared_ptr<ReportReader> reader,
                                        std::unique_ptr<Subscription>& subscription,
                                        Async::ActionHandler& handler) override {
    return RunCommand<OpenDynamicViewCommand>(access_point_, handler, Prepare(entry_point, spec),
                                              std::move(reader), subscription);
  }
  std::shared_ptr<Async::Job> Report(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                                     std::shared_ptr<ReportReader> reader,
                                     Async::ActionHandler& handler) override {
    return RunCommand<OpenStaticViewCommand>(access_point_, handler, Prepare(entry_point, spec),
                                             std::move(reader));
  }

 protected:
  ViewSpec Prepare(const Core::EntryPoint& entry_point, const ViewSpec& spec) const {
    return PrepareSpec(entry_point, spec, *factory_);
  }
  const std::shared_ptr<Binding::AccessPoint>& GetAccessPoint() const { return access_point_; }

 private:
  const std::shared_ptr<Binding::AccessPoint> access_point_;
  const std::unique_ptr<Por::Construction::InMemoryUnitFactory> factory_;
};

// All subscriptions of a connection share one transmission.
class ChanneledRemotePostOffice final : public RemotePostOffice {
 public:
  using RemotePostOffice::RemotePostOffice;

  // Commands that are still on their way out may refer to a dispatcher: it ends here all the same,
  // and not on the thread of the library that drops the last reference.
  ~ChanneledRemotePostOffice() override {
    for (const auto& [key, dispatcher] : dispatchers_) {
      if (dispatcher != nullptr) dispatcher->End();
    }
  }

  std::shared_ptr<Async::Job> Subscribe(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                                        std::shared_ptr<ReportReader> reader,
                                        std::unique_ptr<Subscription>& subscription,
                                        Async::ActionHandler& handler) override {
    std::shared_ptr<RemoteSubscriptionDispatcher> dispatcher = GetDispatcher();
    if (Common::Error error = dispatcher->EnsureTransmission(); error.IsFailure()) {
      TellHandler(handler, std::move(error));
      return nullptr;
    }
    return RunCommand<AddChannelCommand>(GetAccessPoint(), handler, Prepare(entry_point, spec),
                                         std::move(reader), subscription, std::move(dispatcher));
  }

 private:
  // The one of the connection as it is now, which stays until the end of the post office.
  std::shared_ptr<RemoteSubscriptionDispatcher> GetDispatcher() {
    const std::uint32_t key = GetAccessPoint()->GetConnectionKey();
    const Common::MutexLock lock(mutex_);
    std::shared_ptr<RemoteSubscriptionDispatcher>& dispatcher = dispatchers_[key];
    if (dispatcher == nullptr) {
      dispatcher = std::make_shared<RemoteSubscriptionDispatcher>(GetAccessPoint());
    }
    return dispatcher;
  }

  Common::Mutex mutex_;  // guards what follows
  std::map<std::uint32_t, std::shared_ptr<RemoteSubscriptionDispatcher>> dispatchers_;
};

std::unique_ptr<PostOffice> CreateRemoteViewProvider(
    std::shared_ptr<Binding::AccessPoint> access_point) {
  if (access_point == nullptr) {
    throw Common::Error(kDisposedObjectCode,
                        Common::GetMessageText(Common::MessageRow::DmlDisposedObject),
                        kSource.At("CreateRemoteViewProvider", 40));
  }
  std::uint32_t version = 0;
  std::uint32_t further = 0;
  if (const Common::Error error =
          access_point->GetInterfaceVersion(ViewManagement::kViewManagerId, version, further);
      error.IsFailure()) {
    throw Common::Error(error);
  }
  if (version == kViewsOnlyVersion) {
    return std::make_unique<RemotePostOffice>(std::move(access_point));
  }
  return std::make_unique<ChanneledRemotePostOffice>(std::move(access_point));
}

}  // namespace Dml::Client
