#include "core/file/unix/posix_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "core/file/unix/file_name.h"
#include "core/file/unix/guarded_operation.h"
#include "core/file/unix/join_path.h"
#include "core/file/unix/linux_ex.h"
#include "core/file/unix/posix_error.h"
#include "core/file/unix/posix_iterator.h"
#include "core/file/unix/the_identifier.h"
#include "core/include/file/root_dir.h"

namespace Core {
namespace {

constexpr Common::SourceFile kSource{"core/file/unix/posix_dir"};

constexpr file_failure kNoHardLinks{0x4000E, Common::MessageRow::FileHardLinks};
constexpr file_failure kNoSymbolicLinks{0x4000E, Common::MessageRow::FileSymbolicLinks};

// The call `call` on the joined path, which gives 0 or -1 with errno.
template <class Call>
void CallOnPath(posix_dir& dir, const char16_t* path, const file_failure& failure,
                const Common::LineTag& tag, Call call) {
  GuardOperation(dir, tag, [&] {
    const std::string joined = dir.Join(path);
    if (joined.empty()) return dir.SetError(MakeFileError(failure, tag));
    if (call(joined.c_str()) != 0) {
      dir.SetError(MakePosixError(failure, errno, tag, joined.c_str()));
    }
  });
}

// The same on two paths. `unsupported` names EOPNOTSUPP.
template <class Call>
void CallOnPaths(posix_dir& dir, const std::string& path, const std::string& path2,
                 const file_failure& failure, const file_failure& unsupported,
                 const Common::LineTag& tag, Call call) {
  if (path.empty() || path2.empty()) return dir.SetError(MakeFileError(failure, tag));
  if (call(path.c_str(), path2.c_str()) == 0) return;
  const int errnum = errno;
  if (errnum != EOPNOTSUPP) {
    return dir.SetError(MakePosixError(failure, errnum, tag, path.c_str(), path2.c_str()));
  }
  Common::Error error = MakeFileError(unsupported, tag, path.c_str(), path2.c_str());
  error.AddPosixError(errnum);
  dir.SetError(error);
}

// What goes beyond a limit of a file's size shall fail where it is written, and not end the
// process.
void IgnoreFileSizeSignal() {
  static std::atomic<bool> ignored{false};
  if (!ignored.exchange(true)) std::signal(SIGXFSZ, SIG_IGN);
}

mode_t GetTypeBits(entry_type type) {
  switch (type) {
    case kRegularEntry:
      return S_IFREG;
    case kCharacterDeviceEntry:
      return S_IFCHR;
    case kBlockDeviceEntry:
      return S_IFBLK;
    case kFifoEntry:
      return S_IFIFO;
    case kSocketEntry:
      return S_IFSOCK;
    default:
      return 0;
  }
}

const char* GetPayload(const file_identifier* entry) {
  const auto* const identifier = dynamic_cast<const the_identifier*>(entry);
  return identifier != nullptr ? identifier->GetPayload() : nullptr;
}

}  // namespace

std::unique_ptr<rio_dir> OpenRootDir() noexcept {
  static char buffer[4096];
  static const bool found = ::getcwd(buffer, sizeof buffer) != nullptr && buffer[0] == '/';
  try {
    return std::make_unique<posix_dir>(found ? buffer : "/");
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

posix_dir::posix_dir(std::string path) : path_(std::move(path)) {}

std::string posix_dir::Join(const char16_t* path) const {
  if (path == nullptr) return {};
  const std::string name = TextToFileName(path);
  return name.empty() ? std::string() : JoinPath(path_, name);
}

std::string posix_dir::Join(i_dir::iterator& entry) const {
  // An iterator may have got its entry by a path, not only by a name in this directory.
  if (const auto* const own = dynamic_cast<const stat_iterator*>(&entry)) {
    return own->GetFullPath();
  }
  const char* const name = entry.GetNarrowName();
  return name == nullptr || *name == 0 ? std::string() : JoinPath(path_, name);
}

std::string posix_dir::Join(const file_identifier* entry) const {
  const char* const payload = GetPayload(entry);
  return payload == nullptr ? std::string() : JoinPath(path_, payload);
}

template <class Entry>
posix_dir* posix_dir::MakeDir(Entry&& entry) {
  const Common::LineTag tag = kSource.At("OpenDir", 10);
  return GuardOperation(*this, tag, [&]() -> posix_dir* {
    std::string path = Join(entry);
    if (!path.empty()) return new posix_dir(std::move(path));
    SetError(MakeFileError(kFileOpenFailure, tag));
    return nullptr;
  });
}

posix_dir* posix_dir::DoOpenDir(const char16_t* path) {
  return MakeDir(path);
}

posix_dir* posix_dir::DoOpenDir(i_dir::iterator& entry) {
  return MakeDir(entry);
}

posix_dir* posix_dir::DoOpenDir(const file_identifier* entry) {
  return MakeDir(entry);
}

posix_dir* posix_dir::DoOpenParentDir(const char16_t*& path) {
  if (path == nullptr) return DoOpenDir(path);
  const std::u16string_view text(path);
  const std::size_t slash = text.rfind(u'/');
  if (slash == text.npos) return DoOpenDir(u".");
  posix_dir* const parent = GuardOperation(*this, kSource.At("OpenParentDir", 20), [&] {
    // Nothing before the first "/" is the root, not this directory.
    return DoOpenDir(slash == 0 ? u"/" : Common::String(text.substr(0, slash)).c_str());
  });
  if (parent != nullptr) path += slash + 1;
  return parent;
}

std::unique_ptr<posix_dir> posix_dir::OpenDir(const char16_t* path) {
  return std::unique_ptr<posix_dir>(DoOpenDir(path));
}

std::unique_ptr<posix_dir> posix_dir::OpenDir(i_dir::iterator& entry) {
  return std::unique_ptr<posix_dir>(DoOpenDir(entry));
}

std::unique_ptr<posix_dir> posix_dir::OpenDir(const file_identifier* entry) {
  return std::unique_ptr<posix_dir>(DoOpenDir(entry));
}

std::unique_ptr<posix_dir> posix_dir::OpenParentDir(const char16_t*& path) {
  return std::unique_ptr<posix_dir>(DoOpenParentDir(path));
}

std::unique_ptr<i_dir> posix_dir::OpenThisDir() {
  return OpenDir(u".");
}

std::unique_ptr<i_dir> posix_dir::OpenSpecialDir(std::uint32_t id) {
  const Common::LineTag tag = kSource.At("OpenSpecialDir", 30);
  return GuardOperation(*this, tag, [&]() -> std::unique_ptr<i_dir> {
    const char* path = nullptr;
    switch (id) {
      case kStateDir:
        path = "/var/lib";
        break;
      case kHomeDir:
      case kUserDir:
        path = std::getenv("HOME");
        if (path == nullptr || path[0] != '/') {
          SetError(MakeFileError(kFileOpenFailure, tag));
          return nullptr;
        }
        break;
      case kTemporaryDir:
        path = "/tmp";
        break;
      case kLogDir:
        path = "/var/log";
        break;
      default:
        SetError(MakeFileError(kFileUnsupported, tag));
        return nullptr;
    }
    return std::make_unique<posix_dir>(JoinPath("/", path));
  });
}

std::unique_ptr<posix_file> posix_dir::FailOpen(int errnum, const std::string& path) {
  SetError(MakePosixError(kFileOpenFailure, errnum, kSource.At("Open", 40), path.c_str()));
  return nullptr;
}

std::unique_ptr<posix_file> posix_dir::DoOpen(const std::string& path, int flags, bool manual_locks,
                                              std::uint32_t mode) {
  const Common::LineTag tag = kSource.At("Open", 50);
  if (path.empty()) {
    SetError(MakeFileError(kFileOpenFailure, tag));
    return nullptr;
  }
  const bool truncate = !manual_locks && (flags & O_TRUNC) != 0;
  if (truncate) flags &= ~O_TRUNC;
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if (writes) IgnoreFileSizeSignal();

  const int descriptor = LinuxExOpen(path.c_str(), flags, mode);
  if (descriptor == -1) return FailOpen(errno, path);
  if (::fcntl(descriptor, F_SETFD, FD_CLOEXEC) == -1) {
    const int errnum = errno;
    LinuxExClose(descriptor);
    return FailOpen(errnum, path);
  }
  if (!manual_locks) {
    const Common::Error reason = DoLockFileHandle(true, descriptor, writes, false, 0, 0);
    if (reason.IsFailure()) {
      LinuxExClose(descriptor);
      Common::Error error = MakeFileError(kFileAccessDenied, tag, path.c_str());
      error.SetReason(reason);
      SetError(error);
      return nullptr;
    }
  }
  std::unique_ptr<posix_file> file(new (std::nothrow) posix_file(descriptor, manual_locks));
  if (file == nullptr) {
    LinuxExClose(descriptor);
    SetError(MakeFileError(kFileNoMemory, tag));
    return nullptr;
  }
  if (!truncate) return file;
  file->Truncate(0);
  if (!file->HasFailed()) return file;
  Common::Error error = MakeFileError(kFileOpenFailure, tag, path.c_str());
  error.SetReason(file->GetError());
  SetError(error);
  return nullptr;
}

std::unique_ptr<posix_file> posix_dir::Open(const std::string& path, int flags, bool manual_locks,
                                            std::uint32_t mode) {
  SetError({});
  return DoOpen(path, flags, manual_locks, mode);
}

template <class Entry>
std::unique_ptr<posix_file> posix_dir::OpenEntry(Entry&& entry, int flags, bool manual_locks) {
  return GuardOperation(*this, kSource.At("Open", 60),
                        [&] { return Open(Join(entry), flags, manual_locks, 0); });
}

std::unique_ptr<ri_file> posix_dir::OpenRead(const char16_t* path, bool manual_locks) {
  return OpenEntry(path, O_RDONLY, manual_locks);
}

std::unique_ptr<ri_file> posix_dir::OpenRead(i_dir::iterator& entry, bool manual_locks) {
  return OpenEntry(entry, O_RDONLY, manual_locks);
}

std::unique_ptr<ri_file> posix_dir::OpenRead(const file_identifier* entry, bool manual_locks) {
  return OpenEntry(entry, O_RDONLY, manual_locks);
}

std::unique_ptr<ro_file> posix_dir::OpenWrite(const char16_t* path, bool manual_locks) {
  return OpenEntry(path, O_WRONLY, manual_locks);
}

std::unique_ptr<ro_file> posix_dir::OpenWrite(i_dir::iterator& entry, bool manual_locks) {
  return OpenEntry(entry, O_WRONLY, manual_locks);
}

std::unique_ptr<ro_file> posix_dir::OpenWrite(const file_identifier* entry, bool manual_locks) {
  return OpenEntry(entry, O_WRONLY, manual_locks);
}

std::unique_ptr<rio_file> posix_dir::OpenReadWrite(const char16_t* path, bool manual_locks) {
  return OpenEntry(path, O_RDWR, manual_locks);
}

std::unique_ptr<rio_file> posix_dir::OpenReadWrite(i_dir::iterator& entry, bool manual_locks) {
  return OpenEntry(entry, O_RDWR, manual_locks);
}

std::unique_ptr<rio_file> posix_dir::OpenReadWrite(const file_identifier* entry,
                                                   bool manual_locks) {
  return OpenEntry(entry, O_RDWR, manual_locks);
}

std::unique_ptr<ro_file> posix_dir::Create(const char16_t* path, bool manual_locks,
                                           const access_rights* rights) {
  std::unique_ptr<posix_file> file = GuardOperation(*this, kSource.At("Create", 70), [&] {
    return Open(Join(path), O_RDWR | O_CREAT | O_TRUNC, manual_locks,
                rights != nullptr ? rights->mode : kDefaultFileMode);
  });
  if (GetError().GetCode() == kFileOpenFailure.code) {
    Common::Error error = MakeFileError(kFileCreateFailure, kSource.At("Create", 80));
    error.SetReason(GetError());
    SetError(error);
  }
  return file;
}

std::unique_ptr<i_dir::iterator> posix_dir::MakeIterator(const std::string& path, DIR* stream) {
  return std::make_unique<iterator>(path, stream);
}

std::unique_ptr<i_dir::iterator> posix_dir::MakeSelfIterator(const std::string& path) {
  return std::make_unique<self_iterator>(path);
}

std::unique_ptr<i_dir::iterator> posix_dir::GetIterator() {
  const Common::LineTag tag = kSource.At("GetIterator", 90);
  SetError({});
  DIR* const stream = ::opendir(path_.c_str());
  if (stream == nullptr) {
    SetError(MakePosixError(kFileOpenFailure, errno, tag, path_.c_str()));
    return nullptr;
  }
  std::unique_ptr<i_dir::iterator> result =
      GuardOperation(*this, tag, [&] { return MakeIterator(path_, stream); });
  if (result == nullptr) {
    ::closedir(stream);
    SetError(MakeFileError(kFileNoMemory, tag));
  }
  return result;
}

std::unique_ptr<i_dir::iterator> posix_dir::GetIteratorOn(const std::string& path) {
  const Common::LineTag tag = kSource.At("GetIterator", 100);
  if (path.empty()) {
    SetError(MakeFileError(kFileOpenFailure, tag));
    return nullptr;
  }
  std::unique_ptr<i_dir::iterator> result = MakeSelfIterator(path);
  if (result == nullptr) {
    SetError(MakeFileError(kFileNoMemory, tag));
    return nullptr;
  }
  result->StatFile();
  if (!result->HasFailed()) return result;
  SetError(result->GetError());
  return nullptr;
}

std::unique_ptr<i_dir::iterator> posix_dir::GetIterator(const char16_t* path) {
  return GuardOperation(*this, kSource.At("GetIterator", 110),
                        [&] { return GetIteratorOn(Join(path)); });
}

std::unique_ptr<i_dir::iterator> posix_dir::GetIterator(const file_identifier* entry) {
  return GuardOperation(*this, kSource.At("GetIterator", 120),
                        [&] { return GetIteratorOn(Join(entry)); });
}

std::unique_ptr<i_dir::iterator> posix_dir::GetSelfIterator() {
  return GuardOperation(*this, kSource.At("GetSelfIterator", 130),
                        [&] { return GetIteratorOn(path_); });
}

const char16_t* posix_dir::GetPath() {
  if (wide_path_.empty()) {
    try {
      wide_path_ = FileNameToText(GetClosedPath());
    } catch (const std::bad_alloc&) {
      SetError(MakeFileError(kFileNoMemory, kSource.At("GetPath", 140)));
      return nullptr;
    }
  }
  return wide_path_.c_str();
}

dir_relation posix_dir::CompareDirs(const i_dir* other) {
  const auto* const dir = dynamic_cast<const posix_dir*>(other);
  if (dir == nullptr) return kUnrelatedDir;
  const std::string_view path = dir->path_;
  if (path == path_) return kSameDir;
  const bool inside = path.starts_with(path_) && (path_.size() == 1 || path[path_.size()] == '/');
  return inside ? kInnerDir : kUnrelatedDir;
}

int posix_dir::CompareIdentifiers(const file_identifier* left, const file_identifier* right) {
  const char* const left_name = GetPayload(left);
  const char* const right_name = GetPayload(right);
  if (left_name == nullptr || right_name == nullptr) {
    return static_cast<int>(left_name != nullptr) - static_cast<int>(right_name != nullptr);
  }
  return std::strcmp(left_name, right_name);
}

std::uint32_t posix_dir::GetDirKind() {
  return 131;
}

void posix_dir::GetDriveSize(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
  total = free = available = 0;
  SetError({});
  const Common::LineTag tag = kSource.At("GetDriveSize", 150);
  struct statfs status;
  if (::statfs(path_.c_str(), &status) != 0) {
    return SetError(MakePosixError(kFileReadFailure, errno, tag, path_.c_str()));
  }
  const auto block = static_cast<std::uint64_t>(status.f_bsize);
  if (block == 0) return SetError(MakeFileError(kFileReadFailure, tag, path_.c_str()));
  total = block * status.f_blocks;
  free = block * status.f_bfree;
  available = block * status.f_bavail;
}

bool posix_dir::IsSeparator(char16_t character) {
  return character == u'/';
}

char16_t posix_dir::GetSeparator() {
  return u'/';
}

bool posix_dir::IsCaseSensitive() {
  return true;
}

void posix_dir::Remove(const char16_t* path) {
  CallOnPath(*this, path, kFileDeleteFailure, kSource.At("Remove", 160), ::unlink);
}

void posix_dir::Rename(const char16_t* from, const char16_t* to) {
  const Common::LineTag tag = kSource.At("Rename", 170);
  GuardOperation(*this, tag, [&] {
    CallOnPaths(*this, Join(from), Join(to), kFileRenameFailure, kFileUnsupported, tag,
                [](const char* old_path, const char* path) { return std::rename(old_path, path); });
  });
}

void posix_dir::CreateHardLink(const char16_t* path, const char16_t* target) {
  const Common::LineTag tag = kSource.At("CreateHardLink", 180);
  GuardOperation(*this, tag, [&] {
    CallOnPaths(*this, Join(path), Join(target), kFileCreateFailure, kNoHardLinks, tag,
                [](const char* link, const char* file) { return ::link(file, link); });
  });
}

void posix_dir::CreateSymLink(const char16_t* path, const char16_t* target) {
  const Common::LineTag tag = kSource.At("CreateSymLink", 190);
  GuardOperation(*this, tag, [&] {
    const std::string text = target != nullptr ? TextToFileName(target) : std::string();
    CallOnPaths(*this, Join(path), text, kFileCreateFailure, kNoSymbolicLinks, tag,
                [](const char* link, const char* place) { return ::symlink(place, link); });
  });
}

void posix_dir::CreateDir(const char16_t* path, const access_rights* rights) {
  const mode_t mode = rights != nullptr ? rights->mode : kDefaultDirMode;
  CallOnPath(*this, path, kFileCreateFailure, kSource.At("CreateDir", 200),
             [&](const char* joined) { return ::mkdir(joined, mode); });
}

void posix_dir::RemoveDir(const char16_t* path) {
  CallOnPath(*this, path, kFileDeleteFailure, kSource.At("RemoveDir", 210), ::rmdir);
}

void posix_dir::SetAccessRights(const char16_t* path, const access_rights* rights) {
  if (rights != nullptr) return SetUnixPermissions(path, rights->mode);
  SetError(MakeFileError(kFileAccessDenied, kSource.At("SetAccessRights", 220)));
}

void posix_dir::SetUnixPermissions(const char16_t* path, std::uint32_t mode) {
  const Common::LineTag tag = kSource.At("SetUnixPermissions", 230);
  GuardOperation(*this, tag, [&] {
    const std::string joined = Join(path);
    if (joined.empty()) return SetError(MakeFileError(kFileOpenFailure, tag));
    struct stat status;
    const bool known = ::lstat(joined.c_str(), &status) == 0;
    if (known && S_ISLNK(status.st_mode)) {
      return SetError(MakeFileError(kFileUnsupported, tag, joined.c_str()));
    }
    if (!known || ::chmod(joined.c_str(), mode) != 0) {
      SetError(MakePosixError(kFileAccessDenied, errno, tag, joined.c_str()));
    }
  });
}

void posix_dir::SetUnixOwner(const char16_t* path, std::uint32_t owner, std::uint32_t group) {
  const Common::LineTag tag = kSource.At("SetUnixOwner", 240);
  GuardOperation(*this, tag, [&] {
    const std::string joined = Join(path);
    if (joined.empty()) return SetError(MakeFileError(kFileOpenFailure, tag));
    if (::lchown(joined.c_str(), owner, group) != 0) {
      SetError(MakePosixError(kFileAccessDenied, errno, tag, joined.c_str()));
    }
  });
}

void posix_dir::CreateDeviceNode(const char16_t* path, entry_type type, std::uint32_t mode,
                                 std::uint32_t major_number, std::uint32_t minor_number) {
  const Common::LineTag tag = kSource.At("CreateDeviceNode", 250);
  const mode_t type_bits = GetTypeBits(type);
  if (type_bits == 0) return SetError(MakeFileError(kFileCreateFailure, tag));
  CallOnPath(*this, path, kFileCreateFailure, tag, [&](const char* joined) {
    return ::mknod(joined, mode | type_bits, gnu_dev_makedev(major_number, minor_number));
  });
}

void posix_dir::EnableNotification(std::shared_ptr<dir_callback> callback) {
  const Common::LineTag tag = kSource.At("EnableNotification", 260);
  GuardOperation(*this, tag, [&] {
    if (callback == nullptr) return watcher_.reset();
    if (const int errnum = DirWatcher::StartThread(); errnum != 0) {
      Common::Error error = MakeFileError(kFileOpenFailure, tag, path_.c_str());
      error.AddPosixError(errnum);
      return SetError(error);
    }
    if (watcher_ != nullptr) return watcher_->SetCallback(std::move(callback));
    watcher_ = DirWatcher::Make(path_, std::move(callback));
  });
}

void posix_dir::RearmNotification() {
  if (watcher_ != nullptr) watcher_->Rearm();
}

}  // namespace Core
