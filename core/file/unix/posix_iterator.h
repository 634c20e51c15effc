#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "core/common/string.h"
#include "core/file/unix/posix_dir.h"

namespace Core {

// One entry with its status, which is asked for when it is needed, at most once. A failure of that
// is 0x40001 with the entry's path, and stays; what the queries give then is said at
// i_dir::iterator.
class posix_dir::stat_iterator : public i_dir::iterator {
 public:
  std::unique_ptr<file_identifier> GetIdentifier() override;
  // Empty when the entry has no name, and when memory is out (0x40006).
  const char16_t* GetName() override;
  std::uint64_t GetSize() override;
  std::uint64_t GetAllocatedSize() override;
  entry_type GetType() override;
  std::uint64_t GetModifyTime() override;
  std::uint64_t GetChangeTime() override;
  std::uint64_t GetAccessTime() override;
  std::uint32_t GetPermissions() override;
  // By the "." in front of the name. What has no name is hidden.
  bool IsHidden() override;
  std::uint32_t GetOwner() override;
  std::uint32_t GetGroup() override;
  std::uint64_t GetLinkCount() override;
  std::uint32_t GetDeviceMajor() override;
  std::uint32_t GetDeviceMinor() override;
  std::uint64_t GetFileId() override;
  // Up to 4095 bytes. Read once; what can't be read isn't tried again.
  const char16_t* GetLinkTarget() override;
  const char* GetNarrowName() override;
  void StatFile() override;
  std::uint64_t AcquireAllocatedSize() override;

  // The absolute path, as the file system has it; empty when the entry has no name. Throws
  // std::bad_alloc.
  virtual std::string GetFullPath() const = 0;

 protected:
  // lstat and readlink of the entry, with their results and errno.
  virtual int DoStat(struct stat& status) = 0;
  virtual ssize_t DoReadLink(char* buffer, std::size_t size) = 0;

  // Stands on another entry from now on. `name` is borrowed; null is none. `type` is one of the
  // values of d_type.
  void SetEntry(const char* name, unsigned char type);

 private:
  enum class link_state { kUnread, kRead, kUnreadable };

  // Null on failure.
  const struct stat* GetStatus();
  void FailMemory(const char* function, std::uint32_t line);

  const char* name_ = nullptr;
  unsigned char type_ = DT_UNKNOWN;
  bool has_status_ = false;
  bool has_wide_name_ = false;
  link_state link_ = link_state::kUnread;
  struct stat status_;
  Common::String wide_name_;
  Common::String target_;
};

// Walks over a stream.
class posix_dir::iterator : public posix_dir::stat_iterator {
 public:
  // Takes the stream over, unless this throws std::bad_alloc, and goes to the first entry.
  iterator(std::string path, DIR* stream);
  ~iterator() override;

  void Next() override;
  std::string GetFullPath() const override;

 protected:
  // Relative to the stream's directory, also when that was renamed meanwhile.
  int DoStat(struct stat& status) override;
  ssize_t DoReadLink(char* buffer, std::size_t size) override;

 private:
  struct closer {
    void operator()(DIR* stream) const { ::closedir(stream); }
  };

  const std::string path_;
  std::unique_ptr<DIR, closer> stream_;
  const char* name_ = nullptr;
};

// Stands for the entry behind one path. Its name is the path's last component, "/" for the root.
class posix_dir::self_iterator : public posix_dir::stat_iterator {
 public:
  // An absolute, normalised path.
  explicit self_iterator(std::string path);

  std::string GetFullPath() const override;

 protected:
  int DoStat(struct stat& status) override;
  ssize_t DoReadLink(char* buffer, std::size_t size) override;

 private:
  const std::string path_;
};

}  // namespace Core
