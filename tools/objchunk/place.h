#pragma once

#include <memory>
#include <string>

#include "core/common/error.h"
#include "core/file/unix/posix_dir.h"

namespace ChunkTool {

// The working directory. Throws Common::Error.
std::unique_ptr<Core::posix_dir> OpenWorkingDir();

// The absolute path of an argument.
std::string GetFullPath(Core::posix_dir& working, const std::string& path);

// The entry behind an absolute path; null with `error` set when there is none.
std::unique_ptr<Core::i_dir::iterator> FindEntry(Core::posix_dir& directory,
                                                 const std::string& path, Common::Error& error);

}  // namespace ChunkTool
