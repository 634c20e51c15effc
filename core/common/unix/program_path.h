#pragma once

#include <string>

namespace Common {

// Goes from `base` along `path`: an absolute path starts at the root, "." and empty components are
// skipped, ".." goes one up and stops at the first character.
void AppendPath(std::string& base, const char* path);

// The full path of the running program, empty if it can't be found. Not kept: a name relative to
// the working directory is resolved at each call.
std::string GetProgramPath();

// GetProgramPath behind its last slash.
std::string GetProgramName();

}  // namespace Common
