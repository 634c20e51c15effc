#include "core/common/unix/program_path.h"

#include <dlfcn.h>
#include <unistd.h>

#include <string_view>

namespace Common {
namespace {

constexpr std::size_t kMaxPath = 4096;

const char* AskFileName() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&AskFileName), &info) == 0 || info.dli_fname == nullptr) {
    return "";
  }
  return info.dli_fname;
}

// Null until this file's initialiser has run.
const char* file_name = AskFileName();

void AppendComponent(std::string& base, std::string_view component) {
  if (component.empty() || component == ".") return;
  if (component == "..") {
    const std::size_t slash = base.rfind('/');
    if (slash != std::string::npos && slash != 0) {
      base.resize(slash);
    } else if (base.size() > 1) {
      base.resize(1);
    }
    return;
  }
  if (base.size() > 1) base += '/';
  base += component;
}

}  // namespace

void AppendPath(std::string& base, const char* path) {
  std::string_view left = path;
  if (left.starts_with('/')) {
    base.assign(1, '/');
    left.remove_prefix(1);
  }
  for (;;) {
    const std::size_t slash = left.find('/');
    AppendComponent(base, left.substr(0, slash));
    if (slash == std::string_view::npos) return;
    left.remove_prefix(slash + 1);
  }
}

std::string GetProgramPath() {
  const std::string_view name = file_name != nullptr ? file_name : AskFileName();
  char buffer[kMaxPath];
  if (name.find('/') == std::string_view::npos) {
    const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer);
    return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
  }
  std::string path;
  if (name.front() != '/') {
    if (getcwd(buffer, sizeof buffer) == nullptr) return std::string();
    path = buffer;
  }
  AppendPath(path, name.data());
  return path;
}

std::string GetProgramName() {
  const std::string path = GetProgramPath();
  // Without a slash the whole path: npos + 1 is 0.
  return path.substr(path.rfind('/') + 1);
}

}  // namespace Common
