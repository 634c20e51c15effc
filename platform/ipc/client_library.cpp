#include "enterprise/common/ipc/client_library.h"

#include <memory>
#include <mutex>
#include <new>

#include "platform/ipc/client.h"
#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/client_library"};

std::mutex mutex;
std::shared_ptr<Client> client;  // guarded by `mutex`
unsigned int starts = 0;         // guarded by `mutex`: those that have had no end yet

std::shared_ptr<Client> GetClient() {
  const std::lock_guard lock(mutex);
  return client;
}

// Stands in as long as the library isn't started.
class UnreachingBinder final : public Binding::Binder {
 public:
  Common::Error Bind(const Binding::ConnectionRecord&,
                     std::unique_ptr<Binding::Browser>&) override {
    return MakeError(kNotStarted, kSource.At("Bind", 10));
  }
};

void Init(Common::Error& error) {
  const std::lock_guard lock(mutex);
  ++starts;
  if (client != nullptr) return;
  try {
    client = Client::Create();
  } catch (const std::bad_alloc&) {
    error = Common::Error::OutOfMemory();
  }
}

void Deinit(Common::Error& error) {
  std::shared_ptr<Client> last;
  {
    const std::lock_guard lock(mutex);
    if (starts == 0) {
      error = MakeError(kNotStarted, kSource.At("Deinit", 20));
      return;
    }
    if (--starts != 0) return;
    last.swap(client);
  }
  if (last == nullptr) return;
  error = last->Stop();
  if (!error.IsFailure()) return;
  // Called where it must not be: it goes on as before.
  const std::lock_guard lock(mutex);
  if (starts++ == 0) client = last;
}

}  // namespace
}  // namespace Platform::Ipc

void IPCClient_Init(unsigned int, Common::Error& error) {
  Platform::Ipc::Init(error);
}

void IPCClient_Deinit(Common::Error& error) {
  Platform::Ipc::Deinit(error);
}

std::unique_ptr<Binding::Binder> IPCClient_CreateBinder() {
  const std::shared_ptr<Platform::Ipc::Client> client = Platform::Ipc::GetClient();
  if (client == nullptr) return std::make_unique<Platform::Ipc::UnreachingBinder>();
  return client->CreateBinder();
}

std::unique_ptr<Binding::Browser> IPCClient_GetLocalBrowser(Common::Error& error, unsigned int,
                                                            std::unique_ptr<Binding::AccessPoint>&,
                                                            const Binding::WordPair&) {
  const std::shared_ptr<Platform::Ipc::Client> client = Platform::Ipc::GetClient();
  if (client == nullptr) {
    error = Platform::Ipc::MakeError(Platform::Ipc::kNotStarted,
                                     Platform::Ipc::kSource.At("IPCClient_GetLocalBrowser", 30));
    return nullptr;
  }
  return client->GetLocalBrowser(error);
}
