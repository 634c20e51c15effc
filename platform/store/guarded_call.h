#pragma once

#include <utility>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"

// Calls out of the store's own threads: behind them stands nobody else who would look after an
// exception.

namespace Platform::Store {

// The exception that is being handled: a Common::Error as it is, out of memory as that, any other
// one as 0xF90007 or 0xF90008 with `operation` in its text.
Common::Error DescribeException(const char16_t* operation) noexcept;

// Runs `body`; what it throws is the result.
template <class Body>
Common::Error RunGuarded(const char16_t* operation, Body&& body) {
  try {
    std::forward<Body>(body)();
    return {};
  } catch (...) {
    return DescribeException(operation);
  }
}

// Tells the end of work. What the handler throws is traced, described as above, and dropped.
void TellEnd(Async::ActionHandler& handler, Common::Error result);

}  // namespace Platform::Store
