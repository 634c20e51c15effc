#pragma once

#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/dml/reader.h"
#include "enterprise/common/dml_view_common/view_records.h"

// Calls into readers and handlers. A reader never ends a report or a subscription by raising: a
// Common::Error out of a call is traced and dropped, and the next object follows. Other exceptions
// pass through SafeInvoke; whoever owes a handler its end takes them with RunGuarded.

namespace Dml {

inline constexpr unsigned int kCallbackExceptionCode = 0xFC0001;

// Takes care of an error out of a reader: it becomes the reason of kCallbackExceptionCode, which is
// traced at the debug level and dropped.
void GetBaseError(const Common::Error& error);

// Calls `call` without an argument, under the rule above.
template <class Function>
void SafeInvoke(Function&& call) {
  try {
    std::forward<Function>(call)();
  } catch (const Common::Error& error) {
    GetBaseError(error);
  }
}

// The exception that is being handled: a Common::Error as it is, out of memory as that, any other
// one as 0xF90007 or 0xF90008 with `operation` in its text.
Common::Error DescribeException(const char16_t* operation) noexcept;

// Calls `call` without an argument; what it throws, described as above, is the result.
template <class Function>
Common::Error RunGuarded(const char16_t* operation, Function&& call) {
  try {
    std::forward<Function>(call)();
    return {};
  } catch (...) {
    return DescribeException(operation);
  }
}

// Tells `handler` the end, under the rule above. It may destroy whatever it was called from.
void TellHandler(Async::ActionHandler& handler, Common::Error result);

// The unit. Throws ModuleError 0xFA000B for none: units that came from outside may be null.
const Por::View::Unit& NotNull(const Por::SharedUnit& unit);

// Calls Read for each unit in order. A null unit counts as an object whose reader raised.
void ReadObjects(const std::vector<Por::SharedUnit>& units, ReportReader& reader);

// Calls the operation of the update's kind; other kinds are skipped in silence. An update without a
// unit that its operation takes counts as one whose reader raised.
void ReadUpdate(const ViewManagement::ViewUpdate& update, SubscriptionReader& reader);
// The same for each in order.
void ReadUpdates(const std::vector<ViewManagement::ViewUpdate>& updates,
                 SubscriptionReader& reader);

}  // namespace Dml
