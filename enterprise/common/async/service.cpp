#include "enterprise/common/async/service.h"

#include <atomic>

namespace Async {
namespace {

constinit std::atomic<ServiceProvider> current_provider{nullptr};

}  // namespace

ServiceProvider SetServiceProvider(ServiceProvider provider) noexcept {
  return current_provider.exchange(provider);
}

}  // namespace Async

void GetAsyncService(Async::Service** service) {
  if (const Async::ServiceProvider provider = Async::current_provider.load()) provider(service);
}
