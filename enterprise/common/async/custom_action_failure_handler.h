#pragma once

#include <utility>

#include "core/common/error.h"
#include "enterprise/common/async/delegating_action_handler.h"

namespace Async::Detail {

// Calls a functor without arguments when the result is a failure, then passes the result on
// unchanged.
template <class Functor>
class CustomActionFailureHandler : public DelegatingActionHandler {
 public:
  CustomActionFailureHandler(ActionHandler* handler, Functor functor)
      : DelegatingActionHandler(handler), functor_(std::move(functor)) {}

  Common::Error Filter(const Common::Error& result) override {
    if (result.IsFailure()) functor_();
    return result;
  }

 private:
  Functor functor_;
};

}  // namespace Async::Detail
