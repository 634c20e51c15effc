#include "core/include/file/file.h"

namespace Core {

void file_object::IOCTL(ioctl_record&) {
  Fail(MakeFileError(kFileUnsupported, kFileSource.At("IOCTL", 50)));
}

void raccess_file::Unlock(std::int64_t, std::uint64_t) {
  Fail(MakeFileError(kFileUnsupported, kFileSource.At("Unlock", 60)));
}

void raccess_file::Rewind() {
  Seek(0);
}

std::uint64_t raccess_file::GetSize() {
  const std::int64_t position = SeekCurrent(0);
  const std::int64_t size = SeekEnd(0);
  Seek(position);
  return static_cast<std::uint64_t>(size);
}

void ri_file::LockShared(std::int64_t, std::uint64_t, bool) {
  Fail(MakeFileError(kFileUnsupported, kFileSource.At("LockShared", 70)));
}

}  // namespace Core
