#include "tools/objchunk/opened_archive.h"

#include <fcntl.h>

#include "tools/objchunk/place.h"

namespace ChunkTool {

OpenedArchive::OpenedArchive(const std::string& path) {
  const std::unique_ptr<Core::posix_dir> working = OpenWorkingDir();
  file_ = working->Open(GetFullPath(*working, path), O_RDONLY, false, 0);
  if (file_ == nullptr) throw working->GetError();
}

std::string DescribeEnd(const ArchiveReader& reader) {
  const std::uint64_t size = reader.GetSize();
  const std::uint64_t committed = reader.GetCommitted().size;
  if (reader.IsCutShort()) {
    return "The archive is cut short: " + std::to_string(size) + " of " +
           std::to_string(committed) + " bytes are there.";
  }
  if (size == committed) return {};
  return "A save didn't finish. Of its " + std::to_string(size - committed) + " bytes, " +
         std::to_string(size - reader.GetWholePart().size) + " make no whole entry.";
}

}  // namespace ChunkTool
