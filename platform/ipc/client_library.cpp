#include "enterprise/common/ipc/client_library.h"

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {
namespace {

constexpr Common::SourceFile kSource{"platform/ipc/client_library"};

// Can't reach anything yet.
class UnreachingBinder final : public Binding::Binder {
 public:
  Common::Error Bind(const Binding::ConnectionRecord&,
                     std::unique_ptr<Binding::Browser>&) override {
    return MakeError(kNotStarted, kSource.At("Bind", 10));
  }
};

}  // namespace
}  // namespace Platform::Ipc

void IPCClient_Init(unsigned int, Common::Error&) {}

void IPCClient_Deinit(Common::Error&) {}

std::unique_ptr<Binding::Binder> IPCClient_CreateBinder() {
  return std::make_unique<Platform::Ipc::UnreachingBinder>();
}

std::unique_ptr<Binding::Browser> IPCClient_GetLocalBrowser(Common::Error& error, unsigned int,
                                                            std::unique_ptr<Binding::AccessPoint>&,
                                                            const Binding::WordPair&) {
  error = Platform::Ipc::MakeError(Platform::Ipc::kNotStarted,
                                   Platform::Ipc::kSource.At("IPCClient_GetLocalBrowser", 20));
  return nullptr;
}
