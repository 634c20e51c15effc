#include "enterprise/common/dml/read_actions.h"

#include "enterprise/common/async/job.h"
#include "enterprise/common/dml/keep_alive.h"

namespace Dml::Actions {

Report::Report(const Core::EntryPoint& entry_point, const ViewSpec& spec, ReportReader& reader,
               PostOffice& office)
    : ReadAction(entry_point, spec, office),
      reader_(std::make_shared<ReportReaderDelegate>(reader)) {}

std::shared_ptr<Async::Job> Report::Perform(Async::ActionHandler& handler) {
  return KeepAlive(office_->Report(entry_point_, spec_, reader_, handler), reader_);
}

Subscribe::Subscribe(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                     ReportReader& reader, std::unique_ptr<Subscription>& subscription,
                     PostOffice& office)
    : ReadAction(entry_point, spec, office),
      reader_(std::make_shared<ReportReaderDelegate>(reader)),
      subscription_(&subscription) {}

std::shared_ptr<Async::Job> Subscribe::Perform(Async::ActionHandler& handler) {
  return KeepAlive(office_->Subscribe(entry_point_, spec_, reader_, *subscription_, handler),
                   reader_);
}

}  // namespace Dml::Actions
