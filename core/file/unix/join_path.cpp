#include "core/file/unix/join_path.h"

#include <algorithm>

namespace Core {

std::string JoinPath(std::string_view path, std::string_view relative) {
  std::string result;
  result.reserve(path.size() + relative.size() + 1);
  result = relative.starts_with('/') ? std::string_view("/") : path;
  while (!relative.empty()) {
    const std::string_view component = relative.substr(0, relative.find('/'));
    relative.remove_prefix(std::min(component.size() + 1, relative.size()));
    if (component.empty() || component == ".") continue;
    if (component == "..") {
      const std::size_t slash = result.rfind('/');
      result.resize(slash == 0 || slash == std::string::npos ? 1 : slash, '/');
      continue;
    }
    if (result.size() > 1) result.push_back('/');
    result.append(component);
  }
  return result;
}

}  // namespace Core
