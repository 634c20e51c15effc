#include "enterprise/common/async/job_control.h"

#include "enterprise/common/async/job_control_inl.h"

namespace Async {

template class BasicJobControl<ThreadAtomics>;

}  // namespace Async
