#pragma once

#include "core/common/error.h"
#include "enterprise/common/async/action.h"

namespace Async {

// Passes a result on to another handler through a filter.
class DelegatingActionHandler : public ActionHandler {
 public:
  // `handler` is borrowed and must outlive this object's Completed.
  explicit DelegatingActionHandler(ActionHandler* handler) : Handler(handler) {}

  // A Common::Error out of Filter is delivered in place of its result, with `result` as its
  // reason. Exceptions of the delegate pass through. A null delegate is asserted; then the result
  // goes nowhere.
  void Completed(Common::Error result) override;
  // What the delegate gets. By default the result itself.
  virtual Common::Error Filter(const Common::Error& result);

 protected:
  ActionHandler* Handler;
};

}  // namespace Async
