#include "core/common/unix/program_module.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

namespace Common {
namespace {

// Not by the loader's own search: a sanitizer that stands in front of dlopen hides who asks.
std::string FindModule(const char* module) {
  std::error_code failure;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
  if (failure) return module;
  return program.parent_path().parent_path() / "lib" / module;
}

void GetLoaderReason(std::string& reason) {
  const char* const text = ::dlerror();
  reason.assign(text != nullptr ? text : "The loader gives no reason.");
}

}  // namespace

void* FindInModule(const char* module, const char* symbol, std::string& reason) {
  void* const library = ::dlopen(FindModule(module).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    GetLoaderReason(reason);
    return nullptr;
  }
  void* const address = ::dlsym(library, symbol);
  if (address == nullptr) {
    GetLoaderReason(reason);
    ::dlclose(library);
  }
  return address;
}

}  // namespace Common
