#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "core/include/file/file.h"

// The interfaces of directories, which open files, walk over entries and work on names.
//
//   file_object
//     i_dir                 reads
//       si_dir, ri_dir
//     o_dir                 writes
//       ro_dir
//         rio_dir           ri_dir, ro_dir
//
// Nothing here throws. An operation that can fail replaces the directory's stored error, on success
// by the empty one: the error describes the last operation. Only queries that can't fail leave it
// as it is. What gives an object gives null on failure. The defaults fail with 0x4000E.
//
// Texts are UTF-16, ended by a 0. Names in them may hold the byte escape
// (core/common/number_text.h). A path is relative to the directory unless it begins with "/"; an
// empty path, or null, fails. Objects belong to whoever got them, and to one thread at a time. They
// don't depend on the directory that gave them.

namespace Core {

class dir_callback;
class BackupCallback;
class BackupChunkTarget;
class RestoreChunkSource;

inline constexpr Common::SourceFile kDirSource{"core/include/file/dir"};

// What an entry is. The numbers travel in backup streams.
enum entry_type : std::uint32_t {
  kRegularEntry = 0,
  kCharacterDeviceEntry = 1,
  kBlockDeviceEntry = 2,
  kFifoEntry = 3,
  kSocketEntry = 4,
  kSymLinkEntry = 5,
  kOtherFileEntry = 6,  // read as a file in streams; no iterator gives it
  kDirEntry = 128,
};

// What OpenSpecialDir opens.
enum special_dir : std::uint32_t {
  kStateDir = 143,      // "/var/lib"
  kHomeDir = 144,       // the value of HOME
  kUserDir = 145,       // the same
  kTemporaryDir = 149,  // "/tmp"
  kLogDir = 156,        // "/var/log"
};

enum dir_relation : int {
  kSameDir = 0,
  kInnerDir = 1,  // the other one lies inside
  kUnrelatedDir = 2,
};

// The rights of something new. Where a null record is allowed it means the default mode.
struct access_rights {
  std::uint32_t reserved;
  std::uint32_t mode;  // of Unix, the lowest 12 bits
};
inline constexpr std::uint32_t kDefaultFileMode = 0644;
inline constexpr std::uint32_t kDefaultDirMode = 0755;

// Names an entry of a directory and stays good when the walk that gave it goes on.
class file_identifier : public Common::NonCopyable {
 public:
  virtual ~file_identifier() = default;
  // Null when memory is out.
  virtual std::unique_ptr<file_identifier> Clone() const noexcept = 0;
};

class i_dir : public virtual file_object {
 public:
  class iterator;

  // A directory, in the reading face.
  std::unique_ptr<i_dir> OpenDir(const char16_t* path);
  std::unique_ptr<i_dir> OpenDir(iterator& entry);
  std::unique_ptr<i_dir> OpenDir(const file_identifier* entry);
  // The directory in which the path's last component lies; moves `path` to that component. A path
  // without a separator gives this directory and leaves `path`; so does a failure.
  std::unique_ptr<i_dir> OpenParentDir(const char16_t*& path);

  // The operations in the order of their slots.

  // Opens a file for reading. `manual_locks`: the caller locks ranges itself; without it the whole
  // file is locked against writers while the object lives, and opening fails where that can't be
  // had at once.
  virtual std::unique_ptr<ri_file> OpenRead(const char16_t* path, bool manual_locks) = 0;
  // The entry on which `entry` stands, by its name in the file system.
  virtual std::unique_ptr<ri_file> OpenRead(iterator& entry, bool manual_locks) = 0;
  // The entry of this directory that `entry` names. Null fails.
  virtual std::unique_ptr<ri_file> OpenRead(const file_identifier* entry, bool manual_locks) = 0;

 private:
  // Owned by the caller.
  virtual i_dir* DoOpenDir(const char16_t* path) = 0;
  virtual i_dir* DoOpenDir(iterator& entry) = 0;
  virtual i_dir* DoOpenDir(const file_identifier* entry) = 0;
  virtual i_dir* DoOpenParentDir(const char16_t*& path) = 0;

 public:
  // A second object on this directory. By default null, without an error.
  virtual std::unique_ptr<i_dir> OpenThisDir();
  // One of special_dir.
  virtual std::unique_ptr<i_dir> OpenSpecialDir(std::uint32_t id);
  // A walk over the entries, which stands on the first one. In an empty directory it has failed
  // with 0x40002 already.
  virtual std::unique_ptr<iterator> GetIterator() = 0;
  // Stands for that one entry and has no Next. Null unless the entry exists.
  virtual std::unique_ptr<iterator> GetIterator(const char16_t* path) = 0;
  virtual std::unique_ptr<iterator> GetIterator(const file_identifier* entry) = 0;
  // The same for this directory itself.
  virtual std::unique_ptr<iterator> GetSelfIterator() = 0;
  // The absolute path with a separator at its end. Borrowed until the directory goes. By default
  // null.
  virtual const char16_t* GetPath();
  // By their paths; kUnrelatedDir for null and for a directory of another class, too.
  virtual dir_relation CompareDirs(const i_dir* other) = 0;
  // As strcmp. Null comes first.
  virtual int CompareIdentifiers(const file_identifier* left, const file_identifier* right) = 0;
  // 131 or 137. By default 137.
  virtual std::uint32_t GetDirKind();
  // Bytes of the file system: its size, what is free, and what is free for ordinary users. All 0 on
  // failure.
  virtual void GetDriveSize(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available);
  // Null on failure.
  virtual const char16_t* GetVolumeLabel();
  // By default "/" and a backslash are separators, and the backslash is the one to write.
  virtual bool IsSeparator(char16_t character);
  virtual char16_t GetSeparator();
  virtual bool IsCaseSensitive();
  void IOCTL(ioctl_record& record) override;
  // Has the callback called when something in the directory changes; null ends that. One report
  // follows, and further ones only after RearmNotification.
  virtual void EnableNotification(std::shared_ptr<dir_callback> callback);
  virtual void RearmNotification();
  // The directory and the identifier under which the entry is really found: both new. A null
  // identifier gives the directory and null. By default, this directory and the identifier itself.
  // Both null on failure.
  virtual std::pair<std::unique_ptr<i_dir>, std::unique_ptr<file_identifier>> ResolveSymLinks(
      const file_identifier* entry);
  // Without a meaning here: 0.
  virtual int ReservedQuery1();
  virtual int ReservedQuery2();
  virtual int ReservedQuery3();
};

// One entry of a directory, and a walk over them. An iterator keeps its first failure. What it
// gives as text is borrowed until Next or its end.
class i_dir::iterator : public virtual file_object {
 public:
  // Goes to the next entry. Behind the last one: 0x40002.
  virtual void Next();
  // Null when the entry has no name, and when memory is out.
  virtual std::unique_ptr<file_identifier> GetIdentifier() = 0;
  virtual const char16_t* GetName() = 0;
  virtual int ReservedQuery1();  // 0
  virtual const char16_t* GetAlternateName();
  virtual int ReservedQuery2();  // 0
  // Bytes, and bytes on the disk.
  virtual std::uint64_t GetSize();
  virtual std::uint64_t GetAllocatedSize();
  // kRegularEntry on failure.
  virtual entry_type GetType() = 0;
  // Milliseconds since 1 January 1970, rounded down; 0 when unknown.
  virtual std::uint64_t GetModifyTime();
  virtual std::uint64_t GetChangeTime();
  virtual std::uint64_t GetCreateTime();
  virtual std::uint64_t GetAccessTime();
  // All ones when unknown. The permissions are the mode of Unix with the bits of the type.
  virtual std::uint32_t GetDOSAttributes();
  virtual std::uint32_t GetPermissions();
  virtual bool IsHidden();
  virtual std::uint32_t GetOwner();
  virtual std::uint32_t GetGroup();
  virtual int ReservedQuery3();  // 0
  virtual std::uint64_t GetLinkCount();
  // Of a device node.
  virtual std::uint32_t GetDeviceMajor();
  virtual std::uint32_t GetDeviceMinor();
  virtual int ReservedQuery4();  // 1
  virtual std::uint64_t GetFileId();
  // Null when the entry is no symbolic link, and when its target can't be read.
  virtual const char16_t* GetLinkTarget();
  // As the file system has it; empty when the entry has no name.
  virtual const char* GetNarrowName() = 0;
  // Fetches what the queries above tell, once for each entry.
  virtual void StatFile();
  virtual std::uint64_t AcquireAllocatedSize();
};

class si_dir : public i_dir {};

class ri_dir : public si_dir {};

class o_dir : public virtual file_object {
 public:
  // As i_dir's, in the writing face.
  std::unique_ptr<o_dir> OpenDir(const char16_t* path);
  std::unique_ptr<o_dir> OpenParentDir(const char16_t*& path);

  // The operations in the order of their slots.

  // Opens an existing file. Without `manual_locks` the whole file is locked against everybody else.
  virtual std::unique_ptr<ro_file> OpenWrite(const char16_t* path, bool manual_locks) = 0;
  virtual void Remove(const char16_t* path) = 0;
  virtual void Rename(const char16_t* from, const char16_t* to) = 0;
  // Makes `path` a second name of the file `target`.
  virtual void CreateHardLink(const char16_t* path, const char16_t* target);
  // `target` is stored as it stands.
  virtual void CreateSymLink(const char16_t* path, const char16_t* target);
  virtual void CreateDir(const char16_t* path, const access_rights* rights) = 0;
  virtual void RemoveDir(const char16_t* path) = 0;
  virtual void SetAccessRights(const char16_t* path, const access_rights* rights);
  virtual void SetDOSAttributes(const char16_t* path, std::uint32_t attributes);
  // Fails for a symbolic link, of which nothing is changed.
  virtual void SetUnixPermissions(const char16_t* path, std::uint32_t mode);
  // Of a symbolic link itself.
  virtual void SetUnixOwner(const char16_t* path, std::uint32_t owner, std::uint32_t group);
  // A device, FIFO, socket or empty file. `mode` without the bits of the type.
  virtual void CreateDeviceNode(const char16_t* path, entry_type type, std::uint32_t mode,
                                std::uint32_t major_number, std::uint32_t minor_number);
  void IOCTL(ioctl_record& record) override;
  // Makes a file, or takes all bytes from an existing one once it is locked (`manual_locks`: at
  // once, and without a lock).
  virtual std::unique_ptr<ro_file> Create(const char16_t* path, bool manual_locks,
                                          const access_rights* rights) = 0;

 private:
  // Owned by the caller.
  virtual o_dir* DoOpenDir(const char16_t* path) = 0;
  virtual o_dir* DoOpenParentDir(const char16_t*& path) = 0;
};

class ro_dir : public o_dir {};

class rio_dir : public ri_dir, public ro_dir {
 public:
  // In both faces.
  std::unique_ptr<rio_dir> OpenDir(const char16_t* path);
  std::unique_ptr<rio_dir> OpenDir(iterator& entry);
  std::unique_ptr<rio_dir> OpenDir(const file_identifier* entry);
  std::unique_ptr<rio_dir> OpenParentDir(const char16_t*& path);

  void IOCTL(ioctl_record& record) override;

 private:
  rio_dir* DoOpenDir(const char16_t* path) override = 0;
  rio_dir* DoOpenDir(iterator& entry) override = 0;
  rio_dir* DoOpenDir(const file_identifier* entry) override = 0;
  rio_dir* DoOpenParentDir(const char16_t*& path) override = 0;
};

// What EnableNotification calls, on a thread of the watch.
class dir_callback {
 public:
  virtual ~dir_callback() = default;
  // `directory` stands for the watched one during the call. RearmNotification on it asks for the
  // next report.
  virtual void OnDirChanged(i_dir& directory) = 0;
};

// The records of IOCTL. Callers in the process fill them; nothing of them is stored or sent. Texts
// are borrowed for the call. Times are milliseconds since 1 January 1970.

// Files

// Where the file's position lies on its disk, in sectors of 512 bytes.
inline constexpr std::uint64_t kGetSector = MakeIoctlCode("GSEC");
struct get_sector_record : ioctl_record {
  std::uint64_t sector;  // out; all ones in a hole
  std::uint64_t count;   // out; sectors up to the end of the file system's block
  std::uint8_t flag;     // out; 0
};

// A plain ioctl on the descriptor, which leaves the sticky error alone.
inline constexpr std::uint64_t kUnixIoctl = MakeIoctlCode("UIOC");
struct unix_ioctl_record : ioctl_record {
  std::uint32_t command;
  std::uint64_t argument;
  std::int32_t result;  // out
  std::int32_t error;   // out; errno when the result is -1, otherwise left
};

// From now on writes go to the end of the file. No fields.
inline constexpr std::uint64_t kSetAppendMode = MakeIoctlCode("SAMI");

// The flags of the inode, as the file system has them.
inline constexpr std::uint64_t kGetInodeFlags = MakeIoctlCode("GUFL");  // out
inline constexpr std::uint64_t kSetInodeFlags = MakeIoctlCode("SUFL");  // in
struct inode_flags_record : ioctl_record {
  std::uint64_t flags;
};

inline constexpr std::uint64_t kSetFileTimes = MakeIoctlCode("SFTM");
struct file_times_record : ioctl_record {
  std::uint64_t modify_time;
  std::uint64_t reserved_time;
  std::uint64_t access_time;
};

// Makes a hole; the file keeps its size.
inline constexpr std::uint64_t kPunchHole = MakeIoctlCode("SDAT");
struct punch_hole_record : ioctl_record {
  std::int64_t offset;
  std::int64_t length;
};

// Directories

inline constexpr std::uint64_t kSetEntryTimes = MakeIoctlCode("STME");
struct entry_times_record : ioctl_record {
  const char16_t* path;
  std::uint64_t modify_time;
  std::uint64_t reserved_time;
  std::uint64_t access_time;
};

// Bits of the flags of the next two.
inline constexpr std::uint32_t kSkipTimes = 0x02;        // restore
inline constexpr std::uint32_t kSkipData = 0x04;         // backup
inline constexpr std::uint32_t kSkipDescription = 0x08;  // backup

inline constexpr std::uint64_t kBackupEntry = MakeIoctlCode("BKUP");
struct backup_record : ioctl_record {
  BackupChunkTarget* target;
  BackupCallback* callback;  // or null
  std::uint32_t flags;
  const char16_t* path;  // null: the directory itself
};

inline constexpr std::uint64_t kRestoreEntry = MakeIoctlCode("RSTR");
struct restore_record : ioctl_record {
  RestoreChunkSource* source;
  BackupCallback* callback;  // or null
  std::uint32_t flags;
  const char16_t* path;
};

// The name of the file system in upper case.
inline constexpr std::uint64_t kGetFileSystemName = MakeIoctlCode("GFST");
inline constexpr std::size_t kFileSystemNameSize = 16;
struct file_system_name_record : ioctl_record {
  char16_t*
      name;  // the caller's buffer of kFileSystemNameSize units, which gets the text and its 0
};

// The device on which the directory, or the nearest one above it that exists, lies.
inline constexpr std::uint64_t kGetSystemPath = MakeIoctlCode("GSYP");
struct system_path_record : ioctl_record {
  std::uint64_t reserved[2];
  const char16_t* path;        // out; GetPath of the directory
  std::uint32_t major_number;  // out
  std::uint32_t minor_number;  // out
};

// File flags of another platform, which no directory or file here knows: by the name in a
// directory, and of an open file.
inline constexpr std::uint64_t kGetFileFlags = MakeIoctlCode("GMFN");  // out
inline constexpr std::uint64_t kSetFileFlags = MakeIoctlCode("SMFN");  // in
struct entry_flags_record : ioctl_record {
  const char16_t* name;
  std::uint32_t flags;
};
inline constexpr std::uint64_t kSetOpenFileFlags = MakeIoctlCode("SMUF");
struct file_flags_record : ioctl_record {
  std::uint32_t flags;
};

}  // namespace Core
