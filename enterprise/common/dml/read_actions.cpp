#include "enterprise/common/dml/read_actions.h"

#include <new>

#include "enterprise/common/async/job.h"
#include "enterprise/common/async/life_cycle_completion.h"

namespace Dml::Actions {

namespace {

constexpr int kPointerTries = 8;

// `job` as a pointer that keeps `reader` alive too, also when there is no job to point to.
std::shared_ptr<Async::Job> KeepReader(std::shared_ptr<Async::Job> job,
                                       const std::shared_ptr<ReportReader>& reader) {
  if (reader == nullptr) return job;
  for (int i = 0; i < kPointerTries; ++i) {
    try {
      return Async::Detail::CompleteLifeCycle(job, reader);
    } catch (const std::bad_alloc&) {
      // The work is under way and its handler waits to be told: try again.
    }
  }
  // Nothing keeps the reader alive now, so the job must not go on.
  if (job != nullptr) job->Cancel();
  return job;
}

}  // namespace

Report::Report(const Core::EntryPoint& entry_point, const ViewSpec& spec, ReportReader& reader,
               PostOffice& office)
    : ReadAction(entry_point, spec, office),
      reader_(std::make_shared<ReportReaderDelegate>(reader)) {}

std::shared_ptr<Async::Job> Report::Perform(Async::ActionHandler& handler) {
  return KeepReader(office_->Report(entry_point_, spec_, reader_, handler), reader_);
}

Subscribe::Subscribe(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                     ReportReader& reader, std::unique_ptr<Subscription>& subscription,
                     PostOffice& office)
    : ReadAction(entry_point, spec, office),
      reader_(std::make_shared<ReportReaderDelegate>(reader)),
      subscription_(&subscription) {}

std::shared_ptr<Async::Job> Subscribe::Perform(Async::ActionHandler& handler) {
  return KeepReader(office_->Subscribe(entry_point_, spec_, reader_, *subscription_, handler),
                    reader_);
}

}  // namespace Dml::Actions
