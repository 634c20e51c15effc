#pragma once

#include <memory>

#include "core/include/file/dir.h"

namespace Core {

// The way to the file system: a new directory object on the working directory that the process had
// at the first call, "/" if that can't be found out. Null when memory is out. Threads: any.
std::unique_ptr<rio_dir> OpenRootDir() noexcept;

}  // namespace Core
