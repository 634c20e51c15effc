// A backup stream into a folder of its own: it makes the one item that it is asked for, or nothing
// when it fails, unless that is a folder; nothing else changes.
//
// The input is a row of chunks: a byte for the type, two for the length, the bytes.

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>

#include "core/file/unix/posix_dir.h"
#include "fuzz/fuzz_target.h"
#include "tests/core/file/streams/backup_streams.h"

namespace {

// Two folders deep, so that "../" stays in what is looked at.
class Scratch {
 public:
  Scratch() : root_(std::filesystem::temp_directory_path() / "objprobe_fuzz.XXXXXX") {
    Fuzz::Require(::mkdtemp(root_.data()) != nullptr, "there is room for a folder");
    std::filesystem::create_directory(GetFolder());
  }
  ~Scratch() { std::filesystem::remove_all(root_); }

  std::string GetFolder() const { return root_ + "/in"; }
  std::size_t CountAround() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(root_), {}));
  }

 private:
  std::string root_;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Scratch scratch;
  TestSupport::ChunkList chunks;
  while (size >= 3) {
    const std::size_t length = std::min<std::size_t>(data[1] | data[2] << 8, size - 3);
    chunks.emplace_back(data[0], std::string(reinterpret_cast<const char*>(data + 3), length));
    data += 3 + length;
    size -= 3 + length;
  }

  Core::posix_dir directory(scratch.GetFolder());
  TestSupport::ChunkPlayer source(chunks);
  Core::restore_record record{{Core::kRestoreEntry}, &source, nullptr, 0, u"x"};
  directory.IOCTL(record);

  struct stat status;
  const std::string path = scratch.GetFolder() + "/x";
  const bool exists = ::lstat(path.c_str(), &status) == 0;
  if (directory.HasFailed()) {
    Fuzz::Require(!exists || S_ISDIR(status.st_mode), "what failed is gone");
    Fuzz::Require(directory.GetError().GetCode() == 0x4001A, "failures of a restore are told");
  } else {
    Fuzz::Require(exists, "what succeeded is there");
  }
  std::filesystem::remove(path);
  Fuzz::Require(std::filesystem::is_empty(scratch.GetFolder()), "there is one item");
  Fuzz::Require(scratch.CountAround() == 1, "nothing is made around the folder");
  return 0;
}
