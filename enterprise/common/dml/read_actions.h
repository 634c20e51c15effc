#pragma once

#include <memory>

#include "core/common/entry_point.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/dml/reader.h"

// Reports and subscriptions as actions.

namespace Dml {

// Passes on to a reader held by reference, so that it can be handed around in a shared pointer. The
// target must outlive the last call.
class ReportReaderDelegate final : public ReportReader {
 public:
  explicit ReportReaderDelegate(ReportReader& target) : target_(&target) {}
  using ReportReader::Read;
  void Read(const Por::View::Unit& object) override { target_->Read(object); }

 private:
  ReportReader* const target_;
};

namespace Actions {

namespace Detail {

class ReadAction : public virtual Async::Action {
 protected:
  ReadAction(const Core::EntryPoint& entry_point, const ViewSpec& spec, PostOffice& office)
      : entry_point_(entry_point), spec_(spec), office_(&office) {}

  const Core::EntryPoint entry_point_;
  const ViewSpec spec_;
  PostOffice* const office_;
};

}  // namespace Detail

// The jobs of both keep their reader object alive as long as they are referenced. If there is no
// memory for that the job is cancelled. The post office and the reader given to the constructor
// must outlive the job.
class Report final : public Detail::ReadAction {
 public:
  Report(const Core::EntryPoint& entry_point, const ViewSpec& spec, ReportReader& reader,
         PostOffice& office);
  std::shared_ptr<Async::Job> Perform(Async::ActionHandler& handler) override;

 private:
  const std::shared_ptr<ReportReader> reader_;
};

class Subscribe final : public Detail::ReadAction {
 public:
  // `reader` gets the objects that exist at the start. `subscription` is borrowed until the handler
  // is told.
  Subscribe(const Core::EntryPoint& entry_point, const ViewSpec& spec, ReportReader& reader,
            std::unique_ptr<Subscription>& subscription, PostOffice& office);
  std::shared_ptr<Async::Job> Perform(Async::ActionHandler& handler) override;

 private:
  const std::shared_ptr<ReportReader> reader_;
  std::unique_ptr<Subscription>* const subscription_;
};

}  // namespace Actions
}  // namespace Dml
