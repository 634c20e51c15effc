#include "enterprise/common/dml/store_core.h"

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "core/common/line_tag.h"
#include "platform/store/change_follower.h"
#include "platform/store/file_codes.h"
#include "platform/store/limit_option.h"
#include "platform/store/object_store.h"
#include "platform/store/report_threads.h"
#include "platform/store/store_subscription.h"
#include "platform/store/subscribe_job.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/store_core"};

// What the customizer of a store gets to wrap.
class StoreObject final : public Dml::CoreObject {
 public:
  explicit StoreObject(std::shared_ptr<const ObjectStore> store) : store_(std::move(store)) {}

 private:
  const std::shared_ptr<const ObjectStore> store_;
};

class StorePostOffice final : public Dml::PostOffice {
 public:
  StorePostOffice(std::shared_ptr<const ObjectStore> store,
                  const Por::Construction::UnitFactory& factory)
      : store_(std::move(store)),
        factory_(&factory),
        follower_(std::make_shared<ChangeFollower>(store_, factory)) {}
  ~StorePostOffice() override { follower_->Stop(MakeClosingError()); }

  std::shared_ptr<Async::Job> Subscribe(const Core::EntryPoint&, const Dml::ViewSpec& spec,
                                        std::shared_ptr<Dml::ReportReader> reader,
                                        std::unique_ptr<Dml::Subscription>& subscription,
                                        Async::ActionHandler& handler) override {
    return Start(handler, [&] {
      return std::make_shared<SubscribeJob>(follower_, store_, spec, GetLimit(spec.options.get()),
                                            std::move(reader), subscription, handler, *factory_);
    });
  }

  std::shared_ptr<Async::Job> Report(const Core::EntryPoint&, const Dml::ViewSpec& spec,
                                     std::shared_ptr<Dml::ReportReader> reader,
                                     Async::ActionHandler& handler) override {
    return Start(handler, [&] {
      return std::make_shared<ReportJob>(store_, spec, GetLimit(spec.options.get()),
                                         std::move(reader), handler, *factory_);
    });
  }

 private:
  // A failure to start is told to the handler; there is no job then.
  template <class MakeJob>
  std::shared_ptr<Async::Job> Start(Async::ActionHandler& handler, const MakeJob& make_job) {
    Common::Error error;
    try {
      auto job = make_job();
      threads_.Start(job);
      return job;
    } catch (const Common::Error& failure) {
      error = failure;
    } catch (const std::system_error& failure) {
      error = MakeSystemError(Core::kFileReadFailure, store_->GetPath(), failure.code().value(),
                              kSource.At("Start", 20));
    } catch (const std::bad_alloc&) {
      error = Common::Error::OutOfMemory();
    }
    handler.Completed(error);
    return nullptr;
  }

  const std::shared_ptr<const ObjectStore> store_;
  const Por::Construction::UnitFactory* const factory_;
  const std::shared_ptr<ChangeFollower> follower_;
  ReportThreads threads_;
};

class StoreDispatcher final : public Dml::CoreDispatcher {
 public:
  StoreDispatcher(const Common::String& connection_string, Dml::StoreCustomizer* customizer,
                  const Por::Construction::UnitFactory& factory)
      : factory_(&factory) {
    Common::String text = connection_string;
    if (customizer != nullptr) {
      if (const auto resolved = customizer->ResolveConnectionString()) text = resolved->GetText();
    }
    store_ = OpenObjectStore(text);
    if (customizer != nullptr) {
      object_ = customizer->CustomizeStore(std::make_unique<StoreObject>(store_));
    }
  }
  ~StoreDispatcher() override = default;

  std::unique_ptr<Dml::PostOffice> CreatePostOffice() override {
    return std::make_unique<StorePostOffice>(store_, *factory_);
  }

 private:
  const Por::Construction::UnitFactory* const factory_;
  std::shared_ptr<const ObjectStore> store_;
  std::unique_ptr<Dml::CoreObject> object_;
};

}  // namespace

}  // namespace Platform::Store

void DML_Create(const Common::String& connection_string, Dml::StoreCustomizer* customizer,
                Por::Construction::UnitFactory* factory, Dml::CoreDispatcher** dispatcher,
                Common::Error& error) {
  *dispatcher = nullptr;
  try {
    *dispatcher = new Platform::Store::StoreDispatcher(connection_string, customizer, *factory);
  } catch (const Common::Error& failure) {
    error = failure;
  } catch (const std::bad_alloc&) {
    error = Common::Error::OutOfMemory();
  }
}

// Nothing stays open between two reports, or two looks of subscriptions: closing can't fail.
void DML_Delete(Dml::CoreDispatcher** dispatcher, Common::Error&) {
  delete static_cast<Platform::Store::StoreDispatcher*>(*dispatcher);
  *dispatcher = nullptr;
}
