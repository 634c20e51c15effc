#include "platform/store/report_job.h"

#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/text.h"
#include "core/common/trace.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/por/matches.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_blob.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/report_job"};

Por::OwnedUnit Decode(const StoredObject& object, const Por::Construction::UnitFactory& factory) {
  Por::OwnedUnit unit = Por::Util::ReadUnitBlob(object.data, object.size, factory);
  if (unit == nullptr) {
    throw Por::ModuleError(Por::kPorNullUnit,
                           Common::GetMessageText(Common::MessageRow::PorNullUnit),
                           kSource.At("Decode", 10));
  }
  return unit;
}

// An exception that is no Common::Error, out of a reader: behind it stands a thread that nobody
// else looks after. `what` is null when nothing is known of it.
Common::Error DescribeForeignException(const char* what) noexcept {
  try {
    std::vector<Common::String> words{u"Report"};
    if (what != nullptr) words.push_back(Common::Utf8ToString(what));
    Common::String text;
    Common::FormatMessage(
        text,
        Common::GetMessageText(what != nullptr ? Common::MessageRow::AsyncStdException
                                               : Common::MessageRow::AsyncUnknownException),
        words);
    return Common::MakeTracedError(
        what != nullptr ? Async::kStdExceptionCode : Async::kUnknownExceptionCode, text.c_str(),
        kSource.At("DescribeForeignException", 20));
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  }
}

}  // namespace

ReportJob::ReportJob(std::shared_ptr<const ObjectStore> store, Dml::ViewSpec spec,
                     std::optional<unsigned int> limit, Dml::ReportReader* reader,
                     Async::ActionHandler& handler, const Por::Construction::UnitFactory& factory)
    : store_(std::move(store)),
      spec_(std::move(spec)),
      limit_(limit),
      reader_(reader),
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
    Por::OwnedUnit unit;
    Dml::SafeInvoke([&] { unit = Decode(object, *factory_); });
    if (unit == nullptr) continue;
    if (pattern != nullptr && !Por::Util::Matches(*unit, *pattern)) continue;
    ++delivered;
    if (reader_ != nullptr) Dml::SafeInvoke([&] { reader_->Read(*unit); });
  }
  if (stop_.load(std::memory_order_relaxed)) throw Common::Error(Async::canceled_error.Get());
}

void ReportJob::Run() {
  Common::Error result;
  try {
    ReadAll();
  } catch (const Common::Error& error) {
    result = error;
  } catch (const std::bad_alloc&) {
    result = Common::Error::OutOfMemory();
  } catch (const std::exception& failure) {
    result = DescribeForeignException(failure.what());
  } catch (...) {
    result = DescribeForeignException(nullptr);
  }
  // What the report held is gone before its end is known.
  spec_ = {};
  store_.reset();
  Async::ActionHandler* const handler = std::exchange(handler_, nullptr);
  try {
    handler->Completed(result);
  } catch (const Common::Error& error) {
    try {
      Common::Trace(Common::kTraceError, error);
    } catch (const std::bad_alloc&) {
      // Nobody is left to be told.
    }
  }
}

}  // namespace Platform::Store
