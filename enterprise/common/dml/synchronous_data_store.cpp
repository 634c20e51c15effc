#include "enterprise/common/dml/synchronous_data_store.h"

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/waiting_handler.h"
#include "enterprise/common/dml/missing_part.h"
#include "enterprise/common/dml/read_actions.h"

namespace Dml {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/synchronous_data_store"};

}  // namespace

SynchronousDataStore::SynchronousDataStore(PostOffice* office,
                                           Por::Construction::UnitFactory* factory)
    : office_(office), factory_(factory) {}

PostOffice& SynchronousDataStore::GetPostOffice() const {
  if (office_ == nullptr) throw MakeMissingPartError(u"PostOffice", kSource.At("Report", 20));
  return *office_;
}

void SynchronousDataStore::Report(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                                  ReportReader& reader) {
  Actions::Report report(entry_point, spec, reader, GetPostOffice());
  Async::JobControl control;
  Async::WaitingHandler handler(true);
  control.Run(report, handler, nullptr);
  const Common::Error result = handler.Wait(nullptr);
  if (result.IsFailure()) throw Common::Error(result);
}

}  // namespace Dml
