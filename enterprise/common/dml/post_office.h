#pragma once

#include <memory>

#include "core/common/entry_point.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/dml/reader.h"
#include "enterprise/common/dml_view_common/view_records.h"

namespace Dml {

// The one interface through which readers reach objects, in a service or in a local store.
// Both operations start work and return its job, which may be null; the end is told to `handler`,
// possibly before the call returns. `reader` may be null; the work has a share in it up to its last
// call. Threads: any; the post office must outlive its jobs.
class PostOffice : public Common::NonCopyable {
 public:
  virtual ~PostOffice() = default;
  // `reader` gets the objects that exist at the start. `subscription` is borrowed until the handler
  // is told, and filled when the job has succeeded.
  virtual std::shared_ptr<Async::Job> Subscribe(const Core::EntryPoint& entry_point,
                                                const ViewSpec& spec,
                                                std::shared_ptr<ReportReader> reader,
                                                std::unique_ptr<Subscription>& subscription,
                                                Async::ActionHandler& handler) = 0;
  virtual std::shared_ptr<Async::Job> Report(const Core::EntryPoint& entry_point,
                                             const ViewSpec& spec,
                                             std::shared_ptr<ReportReader> reader,
                                             Async::ActionHandler& handler) = 0;
};

}  // namespace Dml
