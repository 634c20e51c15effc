#include "enterprise/common/async/synchronization_fork_inl.h"

namespace Async {

template class BasicSynchronizationFork<ThreadAtomics>;

}  // namespace Async
