#pragma once

#include <memory>

#include "core/common/error.h"
#include "enterprise/common/ipc/client_library.h"

namespace Binding {

// Sends one request and blocks until its end, which is the error of its job, or of making one; a
// null request is such a failure. Behind the call nothing of it is left, and the results stand in
// the variables that the request was made with. Threads: any, callbacks of the library
// included.
Common::Error Call(AccessPoint& access_point, std::unique_ptr<Request> request);

}  // namespace Binding
