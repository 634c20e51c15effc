#include "core/common/time/time_format.h"

#include <atomic>
#include <string>

#include "core/common/time/time_format_module.h"
#include "core/common/unix/program_module.h"
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

// Traces the loader's reason once in the process: every call tries again.
CreateTimeFormatFunction* LoadModule() {
  static std::atomic<bool> is_traced{false};
  std::string reason;
  void* const function = FindInModule(kTimeFormatModule, kCreateTimeFormatSymbol, reason);
  if (function == nullptr && !is_traced.exchange(true)) Trace(kTraceError, 0, 0, reason.c_str());
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
