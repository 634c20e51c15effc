#pragma once

#include <cstdint>

#include "core/common/error.h"
#include "core/include/file/file.h"

namespace Core {

class posix_base_file : public rio_file {};

// An open file of the file system. Nothing is buffered: each operation is a system call, which is
// made again by nobody when a signal cuts it short. Failures of the system have the POSIX error as
// their reason.
//
// Locks belong to the process, not to the object: they don't stand against others of the process,
// and end with the first descriptor of the file that the process closes, whosever it is.
class posix_file : public posix_base_file {
 public:
  // Takes the descriptor over. With `manual_locks` the lock operations work; without it the whole
  // file is locked already, and they do nothing.
  posix_file(int descriptor, bool manual_locks)
      : descriptor_(descriptor), manual_locks_(manual_locks) {}
  ~posix_file() override;

  // Reads until there is nothing more: fewer bytes and no failure is the end. A failure (0x40001)
  // leaves what came before it in the buffer, counted.
  void Read(void* buffer, std::uint64_t size, std::uint64_t& count) override;
  // 0x40017 when the lock can't be had.
  void LockShared(std::int64_t offset, std::uint64_t length, bool wait) override;
  // Writes all of it, but for a full disk and the limits of a file's size: these give a short count
  // without a failure. Others are 0x40003.
  void Write(const void* buffer, std::uint64_t size, std::uint64_t& count) override;
  // To the disk.
  void Flush() override;
  // 0x40005.
  std::int64_t Seek(std::int64_t offset) override;
  std::int64_t SeekCurrent(std::int64_t offset) override;
  // Where the system doesn't seek to the end, by the size that it tells. That clears the sticky
  // error.
  std::int64_t SeekEnd(std::int64_t offset) override;
  void Truncate(std::uint64_t length) override;
  // kGetSector, kUnixIoctl, kSetAppendMode, kGetInodeFlags, kSetInodeFlags, kSetFileTimes and
  // kPunchHole (core/include/file/dir.h). What fails is 0x40003, for kGetSector 0x4000E.
  void IOCTL(ioctl_record& record) override;
  void LockExclusive(std::int64_t offset, std::uint64_t length, bool wait) override;
  void Unlock(std::int64_t offset, std::uint64_t length) override;

  // Stays the file's.
  int GetDescriptor() const noexcept { return descriptor_; }

 private:
  void FailPosix(const file_failure& failure, int errnum, const Common::LineTag& tag);
  std::int64_t DoSeek(std::int64_t offset, int from, const Common::LineTag& tag);
  void GetSector(struct get_sector_record& record);
  void DoLock(bool lock, bool exclusive, bool wait, std::int64_t offset, std::uint64_t length);

  const int descriptor_;
  const bool manual_locks_;
};

// Locks `length` bytes from `offset` on (0: to the end of the file, wherever it will be) for
// writing or reading, or unlocks them; `wait`: until nobody else's lock is in the way. A failure is
// 0x40017.
Common::Error DoLockFileHandle(bool lock, int descriptor, bool exclusive, bool wait,
                               std::int64_t offset, std::uint64_t length);

}  // namespace Core
