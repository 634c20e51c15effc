#include "core/common/unix/program_module.h"

#include <dlfcn.h>
#include <sys/auxv.h>

#include <filesystem>
#include <system_error>

namespace Common {
namespace {

// The path of a module, empty with a reason if it can't be told. Never a bare name, which the
// loader would search in places of the environment's choice; besides, a sanitizer that stands in
// front of dlopen hides from that search who asks.
std::string FindModule(const char* module, std::string& reason) {
  // A hard link gives the program another folder, and whoever starts it may have made that.
  if (::getauxval(AT_SECURE) != 0) {
    reason.assign(module).append(": a program with more rights than its user loads no modules.");
    return {};
  }
  std::error_code failure;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
  if (failure) {
    reason.assign(module).append(": the program's own path can't be read: ");
    reason.append(failure.message());
    return {};
  }
  return program.parent_path().parent_path() / "lib" / module;
}

void GetLoaderReason(std::string& reason) {
  const char* const text = ::dlerror();
  reason.assign(text != nullptr ? text : "The loader gives no reason.");
}

}  // namespace

void* FindInModule(const char* module, const char* symbol, std::string& reason) {
  const std::string path = FindModule(module, reason);
  if (path.empty()) return nullptr;
  void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
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
