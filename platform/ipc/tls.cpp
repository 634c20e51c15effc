#include "platform/ipc/tls.h"

#include <dlfcn.h>

#include <atomic>
#include <filesystem>
#include <system_error>

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/tls"};

// Not by the loader's own search: a sanitizer that stands in front of dlopen hides who asks.
std::string FindModule() {
  std::error_code failure;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
  if (failure) return kTlsModule;
  return program.parent_path().parent_path() / "lib" / kTlsModule;
}

std::string GetLoaderReason() {
  const char* const reason = ::dlerror();
  return reason != nullptr ? reason : "The loader gives no reason.";
}

// Stays loaded. A failure isn't kept: it may pass, like a lack of descriptors.
CreateTlsContextFunction* LoadModule() {
  static std::atomic<CreateTlsContextFunction*> loaded{nullptr};
  CreateTlsContextFunction* create = loaded.load(std::memory_order_acquire);
  if (create != nullptr) return create;
  void* const module = ::dlopen(FindModule().c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    throw MakeReasonedError(kNoTls, GetLoaderReason(), kSource.At("LoadModule", 10));
  }
  create = reinterpret_cast<CreateTlsContextFunction*>(::dlsym(module, kCreateTlsContextSymbol));
  if (create == nullptr) {
    throw MakeReasonedError(kNoTls, GetLoaderReason(), kSource.At("LoadModule", 20));
  }
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
