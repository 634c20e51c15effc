#include "platform/ipc/tls.h"

#include <atomic>
#include <string>

#include "core/common/unix/program_module.h"
#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/tls"};

CreateTlsContextFunction* LoadModule() {
  static std::atomic<CreateTlsContextFunction*> loaded{nullptr};
  CreateTlsContextFunction* create = loaded.load(std::memory_order_acquire);
  if (create != nullptr) return create;
  std::string reason;
  create = reinterpret_cast<CreateTlsContextFunction*>(
      Common::FindInModule(kTlsModule, kCreateTlsContextSymbol, reason));
  if (create == nullptr) throw MakeReasonedError(kNoTls, reason, kSource.At("LoadModule", 10));
  loaded.store(create, std::memory_order_release);
  return create;
}

}  // namespace

std::unique_ptr<TlsContext> CreateTlsContext(const TlsSettings& settings) {
  Common::Error error;
  std::unique_ptr<TlsContext> context(LoadModule()(settings, error));
  if (context == nullptr) throw error;
  return context;
}

}  // namespace Platform::Ipc
