#pragma once

#include <cstddef>
#include <cstdint>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/non_copyable.h"
#include "core/include/file/file_codes.h"

// The interfaces of files: byte streams that may have positions, sizes and locks.
//
//   file_object
//     i_file                reads
//     o_file                writes
//     sized_file            has a size
//       raccess_file        has a position
//     si_file               i_file, sized_file
//       ri_file             si_file, raccess_file
//     ro_file               o_file, raccess_file
//       rio_file            ri_file, ro_file
//
// Nothing here throws. An object keeps its first failure, the sticky error; until somebody clears
// it, every operation but the seeks does nothing, and reads and writes tell a count of 0. Callers
// look at it after a call or a run of calls. A class that departs from this says so.
//
// Sizes, lengths and counts are bytes. An object belongs to one thread at a time and to whoever got
// it.

namespace Core {

inline constexpr Common::SourceFile kFileSource{"core/include/file/file"};

// What IOCTL carries out. Each code has a record of its own, derived from this one, with the
// operation's arguments and results behind the code.
struct ioctl_record {
  std::uint64_t code;
};

// The code that is written as four letters, the first one in the lowest byte.
constexpr std::uint64_t MakeIoctlCode(const char (&letters)[5]) {
  std::uint64_t code = 0;
  for (std::size_t i = 4; i-- != 0;) code = code << 8 | static_cast<unsigned char>(letters[i]);
  return code;
}

class file_object : public Common::NonCopyable {
 public:
  virtual ~file_object() = default;
  // An operation that only some classes have. A class hands the codes that it doesn't know to its
  // base; what nobody knows fails here with 0x4000E.
  virtual void IOCTL(ioctl_record& record);

  // The sticky error, without a record while the object is sound.
  const Common::Error& GetError() const noexcept { return error_; }
  bool HasFailed() const noexcept { return error_.IsFailure(); }
  // Stores the error in place of another one. An empty one makes the object sound again.
  void SetError(const Common::Error& error) noexcept { error_ = error; }
  // Stores the error unless one stands.
  void Fail(const Common::Error& error) noexcept {
    if (!HasFailed()) error_ = error;
  }

 private:
  Common::Error error_;
};

class i_file : public virtual file_object {
 public:
  // Reads up to `size` bytes. `count` is always set; fewer than asked and no failure: the end, or
  // what a source gives at a time.
  virtual void Read(void* buffer, std::uint64_t size, std::uint64_t& count) = 0;
};

class o_file : public virtual file_object {
 public:
  // Writes up to `size` bytes. `count` is always set; fewer than asked and no failure: no room.
  virtual void Write(const void* buffer, std::uint64_t size, std::uint64_t& count) = 0;
  virtual void Flush() {}
};

class sized_file : public virtual file_object {
 public:
  virtual void Rewind() = 0;
  virtual std::uint64_t GetSize() = 0;
};

class si_file : public i_file, public virtual sized_file {};

class raccess_file : public virtual sized_file {
 public:
  // The seeks work on a failed object, too. Each gives the new position, 0 after a failure.
  // `offset` counts from the beginning, the position and the end.
  virtual std::int64_t Seek(std::int64_t offset) = 0;
  virtual std::int64_t SeekCurrent(std::int64_t offset) = 0;
  virtual std::int64_t SeekEnd(std::int64_t offset) = 0;
  // Releases a lock on `length` bytes from `offset` on; length 0 reaches to the end. By default
  // fails with 0x4000E.
  virtual void Unlock(std::int64_t offset, std::uint64_t length);

  // Seek(0).
  void Rewind() override;
  // Seeks to the end and back.
  std::uint64_t GetSize() override;
};

class ri_file : public si_file, public virtual raccess_file {
 public:
  // Locks against exclusive locks of others; `wait`: until they are gone. By default fails with
  // 0x4000E.
  virtual void LockShared(std::int64_t offset, std::uint64_t length, bool wait);
};

class ro_file : public o_file, public virtual raccess_file {
 public:
  virtual void Truncate(std::uint64_t length) = 0;
  // Locks against all locks of others; `wait`: until they are gone.
  virtual void LockExclusive(std::int64_t offset, std::uint64_t length, bool wait) = 0;
};

class rio_file : public ri_file, public ro_file {};

// Reads exactly `size` bytes: fewer, when no failure stands, are the failure 0x40002. What stands
// in the buffer behind the bytes that came is left as it was.
inline void Read(i_file& file, void* buffer, std::uint64_t size) {
  std::uint64_t count = 0;
  file.Read(buffer, size, count);
  if (!file.HasFailed() && count != size) {
    file.SetError(MakeFileError(kEndOfFile, kFileSource.At("Read", 27)));
  }
}

// Writes exactly `size` bytes: fewer, when no failure stands, are the failure 0x40004.
inline void Write(o_file& file, const void* buffer, std::uint64_t size) {
  std::uint64_t count = 0;
  file.Write(buffer, size, count);
  if (!file.HasFailed() && count != size) {
    file.SetError(MakeFileError(kDiskFull, kFileSource.At("Write", 40)));
  }
}

}  // namespace Core
