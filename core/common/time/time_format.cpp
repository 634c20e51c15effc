#include "core/common/time/time_format.h"

#include <dlfcn.h>

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

CreateTimeFormatFunction* LoadModule() {
  void* const module = ::dlopen(FindModule().c_str(), RTLD_NOW | RTLD_LOCAL);
  void* const function = module != nullptr ? ::dlsym(module, kCreateTimeFormatSymbol) : nullptr;
  if (function == nullptr) {
    const char* const reason = ::dlerror();
    Trace(kTraceError, 0, 0, reason != nullptr ? reason : kTimeFormatModule);
  }
  return reinterpret_cast<CreateTimeFormatFunction*>(function);
}

}  // namespace

std::unique_ptr<TimeFormat> TimeFormat::Create(int style, int what) {
  static CreateTimeFormatFunction* const create = LoadModule();
  if (create == nullptr) return std::make_unique<NoTimeFormat>();
  return std::unique_ptr<TimeFormat>(create(style, what));
}

}  // namespace Common
