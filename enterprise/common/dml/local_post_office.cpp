#include "enterprise/common/dml/local_post_office.h"

#include <utility>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/trace.h"
#include "enterprise/common/dml/missing_part.h"
#include "enterprise/common/por/unit_factory.h"

namespace Dml {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/local_post_office"};

// Leaves the store as it is.
class NullStoreCustomizer final : public StoreCustomizer {
 public:
  explicit NullStoreCustomizer(const Common::String& connection_string)
      : connection_string_(connection_string) {}

  std::unique_ptr<CoreObject> CustomizeStore(std::unique_ptr<CoreObject> object) override {
    return object;
  }
  std::unique_ptr<DbConnectionString> ResolveConnectionString() override {
    return std::make_unique<ResolvedConnectionString>(connection_string_);
  }

 private:
  const Common::String connection_string_;
};

// Closes what it has opened.
class ScopedCoreDispatcherImpl final : public ScopedCoreDispatcher {
 public:
  explicit ScopedCoreDispatcherImpl(std::unique_ptr<StoreCustomizer> customizer)
      : customizer_(std::move(customizer)) {}

  ~ScopedCoreDispatcherImpl() override {
    if (dispatcher_ == nullptr) return;
    Common::Error error;
    DML_Delete(&dispatcher_, error);
    if (error.IsFailure()) Common::Trace(Common::kTraceError, error);
  }

  void Open(const Common::String& connection_string, Por::Construction::UnitFactory& factory) {
    Common::Error error;
    DML_Create(connection_string, customizer_.get(), &factory, &dispatcher_, error);
    if (error.IsFailure()) {
      dispatcher_ = nullptr;  // there is nothing to close
      throw Common::Error(error);
    }
    if (dispatcher_ == nullptr) {
      throw MakeMissingPartError(u"CoreDispatcher", kSource.At("Open", 60));
    }
  }

  CoreDispatcher* GetDispatcher() const override { return dispatcher_; }

 private:
  const std::unique_ptr<StoreCustomizer> customizer_;  // called by the core up to its close
  CoreDispatcher* dispatcher_ = nullptr;
};

class ScopedPostOffice final : public PostOffice {
 public:
  explicit ScopedPostOffice(const Common::String& connection_string)
      : factory_(Por::Construction::CreateInMemoryUnitFactory()),
        core_(std::make_unique<NullStoreCustomizer>(connection_string)) {
    core_.Open(connection_string, *factory_);
    office_ = core_.GetDispatcher()->CreatePostOffice();
    if (office_ == nullptr) {
      throw MakeMissingPartError(u"PostOffice", kSource.At("ScopedPostOffice", 80));
    }
  }

  std::shared_ptr<Async::Job> Subscribe(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                                        std::shared_ptr<ReportReader> reader,
                                        std::unique_ptr<Subscription>& subscription,
                                        Async::ActionHandler& handler) override {
    return office_->Subscribe(entry_point, spec, std::move(reader), subscription, handler);
  }
  std::shared_ptr<Async::Job> Report(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                                     std::shared_ptr<ReportReader> reader,
                                     Async::ActionHandler& handler) override {
    return office_->Report(entry_point, spec, std::move(reader), handler);
  }

 private:
  // Destroyed from the last to the first: the office goes before the store closes, customizer and
  // factory behind it.
  const std::unique_ptr<Por::Construction::UnitFactory> factory_;
  ScopedCoreDispatcherImpl core_;
  std::unique_ptr<PostOffice> office_;
};

}  // namespace

std::unique_ptr<PostOffice> CreatePostOffice(const Common::String& connection_string) {
  return std::make_unique<ScopedPostOffice>(connection_string);
}

}  // namespace Dml
