#include "core/common/time/time_format.h"

#include <dlfcn.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <system_error>

#include "core/common/time/time_format_module.h"
#include "core/common/unix/trace.h"

namespace Common {
namespace {

// Stands in where the module can't be had.
class NoTimeFormat final : public TimeFormat {
 public:
  std::uint32_t Format(const DateTime&, String& out) override {
    out.clear();
    return 0;
  }
  int Parse(const String&, DateTime& out) override {
    out = DateTime();
    return -1;
  }
};

// Not by the loader's own search: a sanitizer that stands in front of dlopen hides who asks.
std::string FindModule() {
  std::error_code failure;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
  if (failure) return kTimeFormatModule;
  return program.parent_path().parent_path() / "lib" / kTimeFormatModule;
}

// The loader's reason, once in the process for each `traced`: every call tries again.
void TraceOnce(std::atomic<bool>& traced) {
  const char* const reason = ::dlerror();
  if (traced.exchange(true)) return;
  Trace(kTraceError, 0, 0, reason != nullptr ? reason : kTimeFormatModule);
}

CreateTimeFormatFunction* LoadModule() {
  static std::atomic<bool> traced_module{false};
  static std::atomic<bool> traced_function{false};
  void* const module = ::dlopen(FindModule().c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    TraceOnce(traced_module);
    return nullptr;
  }
  void* const function = ::dlsym(module, kCreateTimeFormatSymbol);
  if (function == nullptr) {
    TraceOnce(traced_function);
    ::dlclose(module);
  }
  return reinterpret_cast<CreateTimeFormatFunction*>(function);
}

}  // namespace

std::unique_ptr<TimeFormat> TimeFormat::Create(int style, int what) {
  static std::atomic<CreateTimeFormatFunction*> loaded{nullptr};
  CreateTimeFormatFunction* create = loaded.load(std::memory_order_acquire);
  if (create == nullptr) {
    // A failure isn't kept: it may pass, like a lack of descriptors.
    create = LoadModule();
    if (create == nullptr) return std::make_unique<NoTimeFormat>();
    loaded.store(create, std::memory_order_release);
  }
  return std::unique_ptr<TimeFormat>(create(style, what));
}

}  // namespace Common
