#pragma once

#include <dirent.h>

#include <cstdint>
#include <memory>
#include <string>

#include "core/common/string.h"
#include "core/file/unix/dir_watcher.h"
#include "core/file/unix/posix_file.h"
#include "core/include/file/dir.h"

namespace Core {

// A directory of the file system, named by a path. Making one asks nothing of the system: whether
// the directory exists shows when something is done in it. No link is followed by the object; the
// system follows those in the middle of paths.
//
// What fails in the system has the POSIX error as its reason and the path, as the file system has
// it, as its parameter. An empty path fails with the operation's code and without parameters. When
// memory is out that is 0x40006.
class posix_dir : public rio_dir {
 public:
  class stat_iterator;
  class iterator;
  class self_iterator;

  // The path is absolute and normalised, without a "/" at its end but for the root.
  explicit posix_dir(std::string path);

  std::unique_ptr<posix_dir> OpenDir(const char16_t* path);
  std::unique_ptr<posix_dir> OpenDir(i_dir::iterator& entry);
  std::unique_ptr<posix_dir> OpenDir(const file_identifier* entry);
  std::unique_ptr<posix_dir> OpenParentDir(const char16_t*& path);

  // 0x40007.
  std::unique_ptr<ri_file> OpenRead(const char16_t* path, bool manual_locks) override;
  std::unique_ptr<ri_file> OpenRead(i_dir::iterator& entry, bool manual_locks) override;
  std::unique_ptr<ri_file> OpenRead(const file_identifier* entry, bool manual_locks) override;
  std::unique_ptr<i_dir> OpenThisDir() override;
  // 0x40007 for a HOME that isn't set or not absolute, 0x4000E for an unknown one.
  std::unique_ptr<i_dir> OpenSpecialDir(std::uint32_t id) override;
  // 0x40007.
  std::unique_ptr<i_dir::iterator> GetIterator() override;
  // 0x40001 for what has no status, 0x40007 for an identifier that names nothing.
  std::unique_ptr<i_dir::iterator> GetIterator(const char16_t* path) override;
  std::unique_ptr<i_dir::iterator> GetIterator(const file_identifier* entry) override;
  std::unique_ptr<i_dir::iterator> GetSelfIterator() override;
  const char16_t* GetPath() override;
  dir_relation CompareDirs(const i_dir* other) override;
  int CompareIdentifiers(const file_identifier* left, const file_identifier* right) override;
  std::uint32_t GetDirKind() override;  // 131
  // 0x40001.
  void GetDriveSize(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override;
  bool IsSeparator(char16_t character) override;
  char16_t GetSeparator() override;
  bool IsCaseSensitive() override;
  // kSetEntryTimes (0x40001, 0x40003; 0x4000E for a symbolic link), kBackupEntry, kRestoreEntry,
  // kGetFileSystemName and kGetSystemPath (0x4000E).
  void IOCTL(ioctl_record& record) override;
  // By a DirWatcher. 0x40007 when its thread can't be started. A callback replaces the one before
  // and asks for a report, too; null, or the directory's end, doesn't wait for one that runs.
  void EnableNotification(std::shared_ptr<dir_callback> callback) override;
  void RearmNotification() override;

  // 0x40007.
  std::unique_ptr<ro_file> OpenWrite(const char16_t* path, bool manual_locks) override;
  // 0x40008.
  void Remove(const char16_t* path) override;
  // 0x40009, with both paths.
  void Rename(const char16_t* from, const char16_t* to) override;
  // 0x4000A, with both paths; a file system without such links is 0x4000E.
  void CreateHardLink(const char16_t* path, const char16_t* target) override;
  void CreateSymLink(const char16_t* path, const char16_t* target) override;
  // 0x4000A.
  void CreateDir(const char16_t* path, const access_rights* rights) override;
  // 0x40008.
  void RemoveDir(const char16_t* path) override;
  // 0x40014 for what can't be changed, 0x40007 for an empty path, 0x4000E for a symbolic link.
  // `rights` may not be null.
  void SetAccessRights(const char16_t* path, const access_rights* rights) override;
  void SetUnixPermissions(const char16_t* path, std::uint32_t mode) override;
  void SetUnixOwner(const char16_t* path, std::uint32_t owner, std::uint32_t group) override;
  // 0x4000A.
  void CreateDeviceNode(const char16_t* path, entry_type type, std::uint32_t mode,
                        std::uint32_t major_number, std::uint32_t minor_number) override;
  // 0x4000A where the others that open have 0x40007, which is then the reason.
  std::unique_ptr<ro_file> Create(const char16_t* path, bool manual_locks,
                                  const access_rights* rights) override;

  // What this class adds, in the order of the slots.

  virtual std::unique_ptr<ro_file> OpenWrite(i_dir::iterator& entry, bool manual_locks);
  virtual std::unique_ptr<ro_file> OpenWrite(const file_identifier* entry, bool manual_locks);
  // For reading and writing.
  virtual std::unique_ptr<rio_file> OpenReadWrite(const char16_t* path, bool manual_locks);
  virtual std::unique_ptr<rio_file> OpenReadWrite(i_dir::iterator& entry, bool manual_locks);
  virtual std::unique_ptr<rio_file> OpenReadWrite(const file_identifier* entry, bool manual_locks);
  // Opens a path that is joined already, with the flags of open. Without `manual_locks` the file is
  // locked first and shortened then, so that who doesn't get the lock (0x40014) changes nothing.
  // The first file to be written makes the process ignore SIGXFSZ.
  virtual std::unique_ptr<posix_file> Open(const std::string& path, int flags, bool manual_locks,
                                           std::uint32_t mode);
  // A walk over a stream, which it takes over unless it is null, and an entry of its own.
  virtual std::unique_ptr<i_dir::iterator> MakeIterator(const std::string& path, DIR* stream);
  virtual std::unique_ptr<i_dir::iterator> MakeSelfIterator(const std::string& path);

  // The path as the file system has it.
  const std::string& GetNarrowPath() const noexcept { return path_; }
  // The absolute path behind a text, an iterator's entry and an identifier; empty when there is
  // none. Throws std::bad_alloc.
  std::string Join(const char16_t* path) const;
  std::string Join(i_dir::iterator& entry) const;
  std::string Join(const file_identifier* entry) const;

 private:
  friend class DirWatcher;

  posix_dir* DoOpenDir(const char16_t* path) override;
  posix_dir* DoOpenDir(i_dir::iterator& entry) override;
  posix_dir* DoOpenDir(const file_identifier* entry) override;
  posix_dir* DoOpenParentDir(const char16_t*& path) override;

  template <class Entry>
  posix_dir* MakeDir(Entry&& entry);
  template <class Entry>
  std::unique_ptr<posix_file> OpenEntry(Entry&& entry, int flags, bool manual_locks);
  std::unique_ptr<i_dir::iterator> GetIteratorOn(const std::string& path);
  std::unique_ptr<posix_file> DoOpen(const std::string& path, int flags, bool manual_locks,
                                     std::uint32_t mode);
  std::unique_ptr<posix_file> FailOpen(int errnum, const std::string& path);

  // With the "/" at its end.
  std::string GetClosedPath() const;
  void SetEntryTimes(const entry_times_record& record);
  void GetFileSystemName(file_system_name_record& record);
  void GetSystemPath(system_path_record& record);

  const std::string path_;
  Common::String wide_path_;       // with a "/" at its end; empty until somebody asks
  DirWatcher::Reference watcher_;  // null without notification
};

}  // namespace Core
