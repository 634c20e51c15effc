#pragma once

#include <string>
#include <string_view>

namespace Core {

// The path to `relative` from the directory `path`, which is absolute, normalised and without a
// closing "/" (except the root itself); so is the result. An absolute `relative` replaces `path`.
// ".." never leads above the root. No link is followed. Throws std::bad_alloc.
std::string JoinPath(std::string_view path, std::string_view relative);

}  // namespace Core
