#pragma once

#include <vector>

#include "core/common/string.h"
#include "enterprise/common/por/parser/data_reader.h"

namespace Utils {

// Gives a file whole, as long as it is when it is opened. What has no size to be found by seeking,
// such as a pipe, can't be read.
class FileReader final : public DataReader {
 public:
  // The path is a file name as text (core/file/unix/file_name.h), relative to the working directory
  // at start unless it is absolute.
  explicit FileReader(Common::String path);

  // Whoever has locked the file for writing keeps it from being read, and nobody waits for that.
  // Throws code 1, "Cannot read from file '{0}'", with what the file or its directory failed with
  // as the reason: 0x40002 for a file that has become shorter, 0x40005 for a pipe, 0x40006 for one
  // that memory doesn't hold; a directory is refused with one code or another. `bytes` is undefined
  // then.
  void Read(std::vector<unsigned char>& bytes) override;

 private:
  Common::String path_;
};

}  // namespace Utils
