#pragma once

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/dml/safe_invoke.h"

// Calls out of the store's own threads: behind them stands nobody else who would look after an
// exception.

namespace Platform::Store {

using Dml::DescribeException;
using Dml::RunGuarded;

// Tells the end of work. What the handler throws is traced, described as above, and dropped.
void TellEnd(Async::ActionHandler& handler, Common::Error result);

}  // namespace Platform::Store
