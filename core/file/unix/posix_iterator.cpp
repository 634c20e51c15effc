#include "core/file/unix/posix_iterator.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <utility>

#include "core/file/unix/file_name.h"
#include "core/file/unix/join_path.h"
#include "core/file/unix/posix_error.h"
#include "core/file/unix/posix_time.h"
#include "core/file/unix/the_identifier.h"

namespace Core {
namespace {

constexpr Common::SourceFile kSource{"core/file/unix/posix_iterator"};

constexpr std::uint32_t kUnknown = ~std::uint32_t{0};
constexpr std::uint64_t kStatusBlock = 512;  // the unit of st_blocks
constexpr std::size_t kMaxTarget = 4095;

entry_type TypeOfMode(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFIFO:
      return kFifoEntry;
    case S_IFCHR:
      return kCharacterDeviceEntry;
    case S_IFDIR:
      return kDirEntry;
    case S_IFBLK:
      return kBlockDeviceEntry;
    case S_IFLNK:
      return kSymLinkEntry;
    case S_IFSOCK:
      return kSocketEntry;
    default:
      return kRegularEntry;
  }
}

}  // namespace

void posix_dir::stat_iterator::SetEntry(const char* name, unsigned char type) {
  name_ = name;
  type_ = type;
  has_status_ = false;
  has_wide_name_ = false;
  link_ = link_state::kUnread;
  wide_name_.clear();
}

void posix_dir::stat_iterator::FailMemory(const char* function, std::uint32_t line) {
  Fail(MakeFileError(kFileNoMemory, kSource.At(function, line)));
}

std::unique_ptr<file_identifier> posix_dir::stat_iterator::GetIdentifier() {
  if (name_ == nullptr) return nullptr;
  return the_identifier::Create(GetName(), name_);
}

const char16_t* posix_dir::stat_iterator::GetName() {
  if (!has_wide_name_ && name_ != nullptr) {
    try {
      wide_name_ = FileNameToText(name_);
      has_wide_name_ = true;
    } catch (const std::bad_alloc&) {
      FailMemory("GetName", 10);
    }
  }
  return wide_name_.c_str();
}

const char* posix_dir::stat_iterator::GetNarrowName() {
  return name_ != nullptr ? name_ : "";
}

void posix_dir::stat_iterator::StatFile() {
  if (HasFailed() || has_status_) return;
  if (DoStat(status_) == 0) {
    has_status_ = true;
    return;
  }
  const int errnum = errno;
  try {
    Fail(MakePosixError(kFileReadFailure, errnum, kSource.At("StatFile", 20),
                        GetFullPath().c_str()));
  } catch (const std::bad_alloc&) {
    FailMemory("StatFile", 20);
  }
}

const struct stat* posix_dir::stat_iterator::GetStatus() {
  StatFile();
  return HasFailed() ? nullptr : &status_;
}

std::uint64_t posix_dir::stat_iterator::GetSize() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? static_cast<std::uint64_t>(status->st_size) : 0;
}

std::uint64_t posix_dir::stat_iterator::GetAllocatedSize() {
  return AcquireAllocatedSize();
}

std::uint64_t posix_dir::stat_iterator::AcquireAllocatedSize() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? static_cast<std::uint64_t>(status->st_blocks) * kStatusBlock : 0;
}

entry_type posix_dir::stat_iterator::GetType() {
  // The types of entries are the types of files without the lower bits.
  if (type_ != DT_UNKNOWN) return TypeOfMode(static_cast<mode_t>(DTTOIF(type_)));
  const struct stat* const status = GetStatus();
  return status != nullptr ? TypeOfMode(status->st_mode) : kRegularEntry;
}

std::uint64_t posix_dir::stat_iterator::GetModifyTime() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? ToMilliseconds(status->st_mtim) : 0;
}

std::uint64_t posix_dir::stat_iterator::GetChangeTime() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? ToMilliseconds(status->st_ctim) : 0;
}

std::uint64_t posix_dir::stat_iterator::GetAccessTime() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? ToMilliseconds(status->st_atim) : 0;
}

std::uint32_t posix_dir::stat_iterator::GetPermissions() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? status->st_mode : kUnknown;
}

bool posix_dir::stat_iterator::IsHidden() {
  return name_ == nullptr || name_[0] == '.' || name_[0] == 0;
}

std::uint32_t posix_dir::stat_iterator::GetOwner() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? status->st_uid : kUnknown;
}

std::uint32_t posix_dir::stat_iterator::GetGroup() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? status->st_gid : kUnknown;
}

std::uint64_t posix_dir::stat_iterator::GetLinkCount() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? status->st_nlink : 1;
}

std::uint32_t posix_dir::stat_iterator::GetDeviceMajor() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? gnu_dev_major(status->st_rdev) : 0;
}

std::uint32_t posix_dir::stat_iterator::GetDeviceMinor() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? gnu_dev_minor(status->st_rdev) : 0;
}

std::uint64_t posix_dir::stat_iterator::GetFileId() {
  const struct stat* const status = GetStatus();
  return status != nullptr ? status->st_ino : 0;
}

const char16_t* posix_dir::stat_iterator::GetLinkTarget() {
  const struct stat* const status = GetStatus();
  if (status == nullptr || !S_ISLNK(status->st_mode)) return nullptr;
  if (link_ == link_state::kUnread) {
    link_ = link_state::kUnreadable;
    char buffer[kMaxTarget];
    const ssize_t size = DoReadLink(buffer, sizeof buffer);
    if (size < 1) return nullptr;
    try {
      target_ = FileNameToText({buffer, static_cast<std::size_t>(size)});
      link_ = link_state::kRead;
    } catch (const std::bad_alloc&) {
      FailMemory("GetLinkTarget", 30);
    }
  }
  return link_ == link_state::kRead ? target_.c_str() : nullptr;
}

posix_dir::iterator::iterator(std::string path, DIR* stream)
    : path_(std::move(path)), stream_(stream) {
  iterator::Next();
}

posix_dir::iterator::~iterator() = default;

void posix_dir::iterator::Next() {
  if (HasFailed()) return;
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(stream_.get());
    if (entry == nullptr) break;
    const char* const name = entry->d_name;
    if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
    name_ = name;
    SetEntry(name, entry->d_type);
    return;
  }
  const int errnum = errno;
  const Common::LineTag tag = kSource.At("Next", 40);
  name_ = nullptr;
  SetEntry(nullptr, DT_UNKNOWN);
  Fail(errnum == 0 ? MakeFileError(kEndOfFile, tag, path_.c_str())
                   : MakePosixError(kFileReadFailure, errnum, tag, path_.c_str()));
}

std::string posix_dir::iterator::GetFullPath() const {
  return name_ != nullptr ? JoinPath(path_, name_) : std::string();
}

int posix_dir::iterator::DoStat(struct stat& status) {
  return ::fstatat(::dirfd(stream_.get()), name_, &status, AT_SYMLINK_NOFOLLOW);
}

ssize_t posix_dir::iterator::DoReadLink(char* buffer, std::size_t size) {
  return ::readlinkat(::dirfd(stream_.get()), name_, buffer, size);
}

posix_dir::self_iterator::self_iterator(std::string path) : path_(std::move(path)) {
  const char* const name = path_.c_str() + path_.rfind('/') + 1;
  SetEntry(*name != 0 ? name : "/", DT_UNKNOWN);
}

std::string posix_dir::self_iterator::GetFullPath() const {
  return path_;
}

int posix_dir::self_iterator::DoStat(struct stat& status) {
  return ::lstat(path_.c_str(), &status);
}

ssize_t posix_dir::self_iterator::DoReadLink(char* buffer, std::size_t size) {
  return ::readlink(path_.c_str(), buffer, size);
}

}  // namespace Core
