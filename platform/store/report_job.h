#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/dml/reader.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/por/unit_factory.h"
#include "platform/store/object_store.h"

namespace Platform::Store {

// One report on a store: row by row, an object is decoded, matched, read and dropped before the
// next one, so that memory doesn't grow with their number.
//
// - An object that can't be decoded is dropped like one whose reader raised.
// - A pattern that raises ends the report with that error.
// - Cancel works at any moment; the report ends with 0xF90002 before the next object.
class ReportJob : public Async::BaseJob {
 public:
  // `reader` may be null. `handler` and `factory` are borrowed until the handler is told. At most
  // `limit` objects are read.
  ReportJob(std::shared_ptr<const ObjectStore> store, Dml::ViewSpec spec,
            std::optional<unsigned int> limit, std::shared_ptr<Dml::ReportReader> reader,
            Async::ActionHandler& handler, const Por::Construction::UnitFactory& factory);

  void Cancel() override { stop_.store(true, std::memory_order_relaxed); }

  // Once, on any thread: reads all and tells the handler. Nothing that was borrowed is touched
  // after that.
  void Run();

 protected:
  const Dml::ViewSpec& GetSpec() const { return spec_; }
  std::optional<unsigned int> GetLimit() const { return limit_; }

  // What more there is to do, on the thread of the report; what these throw ends it. `cursor` is
  // behind the last object.
  virtual void OnRead(const StoredObject&) {}
  virtual void OnAllRead(const ObjectCursor&) {}

 private:
  void ReadAll();

  std::shared_ptr<const ObjectStore> store_;
  Dml::ViewSpec spec_;
  const std::optional<unsigned int> limit_;
  std::shared_ptr<Dml::ReportReader> reader_;
  Async::ActionHandler* handler_;
  const Por::Construction::UnitFactory* const factory_;
  std::atomic<bool> stop_{false};
};

}  // namespace Platform::Store
