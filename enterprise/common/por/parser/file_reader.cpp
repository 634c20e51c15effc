#include "enterprise/common/por/parser/file_reader.h"

#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/include/file/file.h"
#include "core/include/file/root_dir.h"

namespace Utils {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/parser/file_io"};

constexpr std::uint32_t kCannotRead = 1;

// No memory holds as much. A directory may tell 2^63 - 1, for which not every allocator fails in
// good order.
constexpr std::uint64_t kMaxSize = std::uint64_t{1} << 40;

[[noreturn]] void ThrowCannotRead(const Common::String& path, const Common::Error& reason) {
  Common::String text;
  Common::FormatMessage(text, u"Cannot read from file '{0}'", path);
  Common::Error error(kCannotRead, text.c_str(), kSource.At("Read", 10));
  error.SetReason(reason);
  throw Common::Error(error);
}

// As many bytes as the file has; a failure stands in the file.
void ReadWhole(Core::ri_file& file, std::vector<unsigned char>& bytes) {
  const std::uint64_t size = file.GetSize();
  if (file.HasFailed()) return;
  const auto tell_no_memory = [&file] {
    file.SetError(Core::MakeFileError(Core::kFileNoMemory, kSource.At("Read", 20)));
  };
  if (size > kMaxSize) return tell_no_memory();
  try {
    bytes.resize(static_cast<std::size_t>(size));
  } catch (const std::bad_alloc&) {
    return tell_no_memory();
  } catch (const std::length_error&) {
    return tell_no_memory();
  }
  Core::Read(file, bytes.data(), size);
}

}  // namespace

FileReader::FileReader(Common::String path) : path_(std::move(path)) {}

void FileReader::Read(std::vector<unsigned char>& bytes) {
  const std::unique_ptr<Core::rio_dir> root = Core::OpenRootDir();
  if (root == nullptr) {
    ThrowCannotRead(path_, Core::MakeFileError(Core::kFileNoMemory, kSource.At("Read", 30)));
  }
  const std::unique_ptr<Core::ri_file> file = root->OpenRead(path_.c_str(), false);
  if (file == nullptr) ThrowCannotRead(path_, root->GetError());
  if (!file->HasFailed()) ReadWhole(*file, bytes);
  if (file->HasFailed()) ThrowCannotRead(path_, file->GetError());
}

}  // namespace Utils
