#include "enterprise/common/async/metronome.h"

#include "enterprise/common/async/metronome_inl.h"

namespace Async {

template class BasicMetronomeListener<ThreadAtomics>;

}  // namespace Async
