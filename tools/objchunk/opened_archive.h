#pragma once

#include <memory>
#include <string>

#include "core/include/file/file.h"
#include "tools/objchunk/chunk_archive.h"

namespace ChunkTool {

// An archive for reading, on which no save works meanwhile.
class OpenedArchive : public Common::NonCopyable {
 public:
  // Throws Common::Error.
  explicit OpenedArchive(const std::string& path);

  Core::ri_file& GetFile() const { return *file_; }

 private:
  std::unique_ptr<Core::ri_file> file_;
};

// What is wrong with the end of an archive that was read up to there; empty if nothing.
std::string DescribeEnd(const ArchiveReader& reader);

}  // namespace ChunkTool
