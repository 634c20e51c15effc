#include "core/file/unix/posix_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "core/common/unix/safe_assert.h"
#include "core/file/unix/linux_ex.h"
#include "core/file/unix/posix_error.h"
#include "core/file/unix/posix_time.h"
#include "core/include/file/dir.h"

namespace Core {
namespace {

constexpr Common::SourceFile kSource{"core/file/unix/posix_file"};

// FS_IOC_GETFLAGS and FS_IOC_SETFLAGS on 64 bits. The kernel moves 32 bits whatever they say.
constexpr unsigned long kReadInodeFlags = 0x80086601;
constexpr unsigned long kWriteInodeFlags = 0x40086602;

constexpr std::uint64_t kSectorSize = 512;

// Moves up to `size` bytes, as much at a time as `move` does: that gets the place and the size and
// gives what read and write do. True if it came to its end without a failure; otherwise errno says
// why not. `count` is what was moved.
template <class Move>
bool MoveBytes(std::uint64_t size, std::uint64_t& count, Move move) {
  constexpr auto kMost =
      static_cast<std::uint64_t>(std::numeric_limits<ssize_t>::max());  // beyond, nothing is said
  count = 0;
  while (count != size) {
    const std::uint64_t wanted = std::min(size - count, kMost);
    const ssize_t moved = move(count, static_cast<std::size_t>(wanted));
    if (moved == 0) return true;
    if (moved < 0) return false;
    if (static_cast<std::uint64_t>(moved) > wanted) {
      Common::SafeAssert("rr <= Size", __FILE__, __LINE__);
      errno = EIO;
      return false;
    }
    count += static_cast<std::uint64_t>(moved);
  }
  return true;
}

}  // namespace

posix_file::~posix_file() {
  LinuxExClose(descriptor_);
}

void posix_file::FailPosix(const file_failure& failure, int errnum, const Common::LineTag& tag) {
  Fail(MakePosixError(failure, errnum, tag));
}

void posix_file::Read(void* buffer, std::uint64_t size, std::uint64_t& count) {
  count = 0;
  if (HasFailed()) return;
  const bool good = MoveBytes(size, count, [&](std::uint64_t at, std::size_t wanted) {
    return ::read(descriptor_, static_cast<unsigned char*>(buffer) + at, wanted);
  });
  if (!good) FailPosix(kFileReadFailure, errno, kSource.At("Read", 10));
}

void posix_file::Write(const void* buffer, std::uint64_t size, std::uint64_t& count) {
  count = 0;
  if (HasFailed()) return;
  const bool good = MoveBytes(size, count, [&](std::uint64_t at, std::size_t wanted) {
    return ::write(descriptor_, static_cast<const unsigned char*>(buffer) + at, wanted);
  });
  if (good || errno == EFBIG || errno == ENOSPC) return;
  FailPosix(kFileWriteFailure, errno, kSource.At("Write", 20));
}

void posix_file::Flush() {
  if (HasFailed()) return;
  if (::fsync(descriptor_) != 0) FailPosix(kFileWriteFailure, errno, kSource.At("Flush", 30));
}

std::int64_t posix_file::DoSeek(std::int64_t offset, int from, const Common::LineTag& tag) {
  const std::int64_t position = ::lseek(descriptor_, offset, from);
  if (position != -1) return position;
  FailPosix(kFileSeekFailure, errno, tag);
  return 0;
}

std::int64_t posix_file::Seek(std::int64_t offset) {
  return DoSeek(offset, SEEK_SET, kSource.At("Seek", 40));
}

std::int64_t posix_file::SeekCurrent(std::int64_t offset) {
  return DoSeek(offset, SEEK_CUR, kSource.At("SeekCurrent", 50));
}

std::int64_t posix_file::SeekEnd(std::int64_t offset) {
  const std::int64_t position = ::lseek(descriptor_, offset, SEEK_END);
  if (position != -1) return position;
  const Common::LineTag tag = kSource.At("SeekEnd", 60);
  const int errnum = errno;
  FailPosix(kFileSeekFailure, errnum, tag);
  if (errnum != EBADF) return 0;
  struct stat status;
  if (::fstat(descriptor_, &status) != 0) {
    SetError(MakePosixError(kFileSeekFailure, errno, tag));
    return 0;
  }
  SetError({});
  return Seek(static_cast<std::int64_t>(static_cast<std::uint64_t>(status.st_size) +
                                        static_cast<std::uint64_t>(offset)));
}

void posix_file::Truncate(std::uint64_t length) {
  if (HasFailed()) return;
  // What is too long for the system is a negative number there, which it refuses.
  if (::ftruncate(descriptor_, static_cast<off_t>(length)) != 0) {
    FailPosix(kFileWriteFailure, errno, kSource.At("Truncate", 70));
  }
}

void posix_file::GetSector(get_sector_record& record) {
  const std::int64_t position = SeekCurrent(0);
  if (HasFailed()) return;
  const Common::LineTag tag = kSource.At("GetSector", 80);
  int block_size = 0;
  if (::ioctl(descriptor_, FIGETBSZ, &block_size) != 0) {
    return FailPosix(kFileUnsupported, errno, tag);
  }
  const auto sectors = static_cast<std::uint64_t>(std::max(block_size, 0)) / kSectorSize;
  const std::uint64_t sector = static_cast<std::uint64_t>(position) / kSectorSize;
  // The system numbers blocks with 31 bits.
  if (sectors == 0 || sector / sectors > std::numeric_limits<int>::max()) {
    return FailPosix(kFileUnsupported, EOVERFLOW, tag);
  }
  int block = static_cast<int>(sector / sectors);
  if (::ioctl(descriptor_, FIBMAP, &block) != 0) return FailPosix(kFileUnsupported, errno, tag);
  const std::uint64_t within = sector % sectors;
  record.sector =
      block == 0 ? ~std::uint64_t{0}
                 : static_cast<std::uint64_t>(static_cast<unsigned int>(block)) * sectors + within;
  record.count = sectors - within;
  record.flag = 0;
}

void posix_file::IOCTL(ioctl_record& record) {
  if (HasFailed()) return;
  const Common::LineTag tag = kSource.At("IOCTL", 90);
  switch (record.code) {
    case kGetSector:
      return GetSector(static_cast<get_sector_record&>(record));
    case kUnixIoctl: {
      auto& request = static_cast<unix_ioctl_record&>(record);
      request.result = ::ioctl(descriptor_, request.command, request.argument);
      if (request.result == -1) request.error = errno;
      return;
    }
    case kSetAppendMode: {
      const int flags = ::fcntl(descriptor_, F_GETFL);
      if (flags == -1 || ::fcntl(descriptor_, F_SETFL, flags | O_APPEND) != 0) {
        FailPosix(kFileWriteFailure, errno, tag);
      }
      return;
    }
    case kGetInodeFlags: {
      std::uint64_t flags = 0;
      if (::ioctl(descriptor_, kReadInodeFlags, &flags) != 0) {
        return FailPosix(kFileWriteFailure, errno, tag);
      }
      static_cast<inode_flags_record&>(record).flags = flags;
      return;
    }
    case kSetInodeFlags: {
      std::uint64_t flags = static_cast<inode_flags_record&>(record).flags;
      if (::ioctl(descriptor_, kWriteInodeFlags, &flags) != 0) {
        FailPosix(kFileWriteFailure, errno, tag);
      }
      return;
    }
    case kSetFileTimes: {
      const auto& request = static_cast<const file_times_record&>(record);
      const timeval times[] = {MakeTimeval(request.access_time), MakeTimeval(request.modify_time)};
      if (::futimes(descriptor_, times) != 0) FailPosix(kFileWriteFailure, errno, tag);
      return;
    }
    case kPunchHole: {
      const auto& request = static_cast<const punch_hole_record&>(record);
      int result = 0;
      do {
        result = ::fallocate(descriptor_, FALLOC_FL_KEEP_SIZE | FALLOC_FL_PUNCH_HOLE,
                             request.offset, request.length);
      } while (result != 0 && errno == EINTR);
      if (result != 0) FailPosix(kFileWriteFailure, errno, tag);
      return;
    }
    default:
      posix_base_file::IOCTL(record);
  }
}

void posix_file::DoLock(bool lock, bool exclusive, bool wait, std::int64_t offset,
                        std::uint64_t length) {
  if (HasFailed() || !manual_locks_) return;
  const Common::Error error = DoLockFileHandle(lock, descriptor_, exclusive, wait, offset, length);
  if (error.IsFailure()) SetError(error);
}

void posix_file::LockShared(std::int64_t offset, std::uint64_t length, bool wait) {
  DoLock(true, false, wait, offset, length);
}

void posix_file::LockExclusive(std::int64_t offset, std::uint64_t length, bool wait) {
  DoLock(true, true, wait, offset, length);
}

void posix_file::Unlock(std::int64_t offset, std::uint64_t length) {
  DoLock(false, false, false, offset, length);
}

Common::Error DoLockFileHandle(bool lock, int descriptor, bool exclusive, bool wait,
                               std::int64_t offset, std::uint64_t length) {
  struct flock record {};
  record.l_type = static_cast<short>(!lock ? F_UNLCK : exclusive ? F_WRLCK : F_RDLCK);
  record.l_whence = SEEK_SET;
  record.l_start = offset;
  record.l_len = static_cast<off_t>(length);
  const Common::LineTag tag = kSource.At("DoLockFileHandle", 100);
  // A negative length would lock what lies in front of the offset.
  if (record.l_len < 0) return MakePosixError(kFileLockFailure, EOVERFLOW, tag);
  if (LinuxExRangeLock(descriptor, wait ? F_SETLKW : F_SETLK, &record) == 0) return {};
  return MakePosixError(kFileLockFailure, errno, tag);
}

}  // namespace Core
