#include "tools/objchunk/place.h"

#include "core/file/unix/join_path.h"
#include "core/include/file/root_dir.h"

namespace ChunkTool {
namespace {

constexpr Common::SourceFile kSource{"tools/objchunk/place"};

}  // namespace

std::unique_ptr<Core::posix_dir> OpenWorkingDir() {
  const std::unique_ptr<Core::rio_dir> root = Core::OpenRootDir();
  if (auto* const posix = dynamic_cast<Core::posix_dir*>(root.get())) {
    return std::make_unique<Core::posix_dir>(posix->GetNarrowPath());
  }
  throw Core::MakeFileError(Core::kFileNoMemory, kSource.At("OpenWorkingDir", 10));
}

std::string GetFullPath(Core::posix_dir& working, const std::string& path) {
  if (path.empty()) throw Core::MakeFileError(Core::kFileNotFound, kSource.At("GetFullPath", 10));
  return Core::JoinPath(working.GetNarrowPath(), path);
}

std::unique_ptr<Core::i_dir::iterator> FindEntry(Core::posix_dir& directory,
                                                 const std::string& path, Common::Error& error) {
  std::unique_ptr<Core::i_dir::iterator> entry = directory.MakeSelfIterator(path);
  error = {};
  if (entry == nullptr) {
    error = directory.GetError();
    return nullptr;
  }
  entry->StatFile();
  if (!entry->HasFailed()) return entry;
  error = entry->GetError();
  return nullptr;
}

}  // namespace ChunkTool
