#include "enterprise/common/async/tail_recursion.h"

#include "enterprise/common/async/tail_recursion_inl.h"

namespace Async {

template class BasicTailRecursionController<ThreadAtomics>;

}  // namespace Async
