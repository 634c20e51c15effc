#include "tests/enterprise/common/async/test_support.h"

#include <cstdlib>

namespace {

// Assertions that are meant to come go to the trace only. Read at the first report.
[[maybe_unused]] const int assertions_to_trace = setenv("VELORIN_SAFE_ASSERT", "event", 1);

}  // namespace
