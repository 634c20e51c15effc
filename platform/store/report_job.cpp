#include "platform/store/report_job.h"

#include <utility>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/por/matches.h"
#include "platform/store/decode_object.h"
#include "platform/store/guarded_call.h"

namespace Platform::Store {

ReportJob::ReportJob(std::shared_ptr<const ObjectStore> store, Dml::ViewSpec spec,
                     std::optional<unsigned int> limit, std::shared_ptr<Dml::ReportReader> reader,
                     Async::ActionHandler& handler, const Por::Construction::UnitFactory& factory)
    : store_(std::move(store)),
      spec_(std::move(spec)),
      limit_(limit),
      reader_(std::move(reader)),
      handler_(&handler),
      factory_(&factory) {}

void ReportJob::ReadAll() {
  const Por::View::Unit* pattern = spec_.pattern.get();
  const auto cursor = store_->Select(
      pattern != nullptr ? GetDemandedIsKeys(*pattern) : std::vector<IsKey>(), stop_);
  unsigned long long delivered = 0;
  StoredObject object;
  while ((!limit_ || delivered < *limit_) && cursor->Next(object)) {
    if (stop_.load(std::memory_order_relaxed)) break;
    const Por::OwnedUnit unit = DecodeObject(object.data, object.size, *factory_);
    if (unit == nullptr) continue;
    if (pattern != nullptr && !Por::Util::Matches(*unit, *pattern)) continue;
    ++delivered;
    if (reader_ != nullptr) Dml::SafeInvoke([&] { reader_->Read(*unit); });
    OnRead(object);
  }
  if (stop_.load(std::memory_order_relaxed)) throw Common::Error(Async::canceled_error.Get());
  OnAllRead(*cursor);
}

void ReportJob::Run() {
  const Common::Error result = RunGuarded(u"Report", [this] { ReadAll(); });
  // What the report held is gone before its end is known.
  spec_ = {};
  reader_.reset();
  store_.reset();
  TellEnd(*std::exchange(handler_, nullptr), result);
}

}  // namespace Platform::Store
