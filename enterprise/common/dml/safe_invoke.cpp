#include "enterprise/common/dml/safe_invoke.h"

#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/trace.h"
#include "enterprise/common/async/operation_description.h"
#include "enterprise/common/por/module_error.h"

namespace Dml {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/safe_invoke"};

}  // namespace

void GetBaseError(const Common::Error& error) {
  Common::Error wrapped(kCallbackExceptionCode, u"Exception from callback.",
                        kSource.At("GetBaseError", 40));
  wrapped.SetReason(error);
  Common::Trace(Common::kTraceDebug, wrapped);
}

Common::Error DescribeException(const char16_t* operation) noexcept {
  Async::NamedOperationDescription description(operation);
  return Async::DescribeCaughtException(description);
}

void TellHandler(Async::ActionHandler& handler, Common::Error result) {
  SafeInvoke([&] { handler.Completed(std::move(result)); });
}

const Por::View::Unit& NotNull(const Por::SharedUnit& unit) {
  if (unit == nullptr) {
    throw Por::ModuleError(Por::kPorNullUnit,
                           Common::GetMessageText(Common::MessageRow::PorNullUnit),
                           kSource.At("NotNull", 20));
  }
  return *unit;
}

void ReadObjects(const std::vector<Por::SharedUnit>& units, ReportReader& reader) {
  for (const Por::SharedUnit& unit : units) {
    SafeInvoke([&] { reader.Read(NotNull(unit)); });
  }
}

void ReadUpdate(const ViewManagement::ViewUpdate& update, SubscriptionReader& reader) {
  SafeInvoke([&] {
    switch (update.type) {
      case ViewManagement::kUpdateCreated:
        reader.OnCreated(NotNull(update.key));
        break;
      case ViewManagement::kUpdateUpdated:
        reader.OnUpdated(NotNull(update.key), NotNull(update.packed_update));
        break;
      case ViewManagement::kUpdateDeleted:
        reader.OnDeleted(NotNull(update.key));
        break;
      default:
        break;
    }
  });
}

void ReadUpdates(const std::vector<ViewManagement::ViewUpdate>& updates,
                 SubscriptionReader& reader) {
  for (const ViewManagement::ViewUpdate& update : updates) ReadUpdate(update, reader);
}

}  // namespace Dml
