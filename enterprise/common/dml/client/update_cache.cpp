#include "enterprise/common/dml/client/update_cache_inl.h"

namespace Dml::Client {

template class BasicInMemoryUpdateCache<Async::ThreadAtomics>;

}  // namespace Dml::Client
