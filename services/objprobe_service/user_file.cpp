#include "services/objprobe_service/user_file.h"

#include <crypt.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "core/common/line_tag.h"
#include "core/common/unix/safe_close.h"
#include "platform/store/file_codes.h"

namespace ObjProbeService {

namespace {

using Platform::Store::MakeFileError;
using Platform::Store::MakeSystemError;

constexpr Common::SourceFile kSource{"services/objprobe_service/user_file"};

constexpr std::size_t kMaxFileSize = std::size_t{16} << 20;
constexpr mode_t kGroupReads = 0640;
constexpr std::string_view kMethods[] = {"$y$", "$6$"};

class Descriptor : public Common::NonCopyable {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) Common::SafeClose(number_);
  }
  int Get() const { return number_; }

 private:
  const int number_;
};

// What crypt makes of a password, empty when it can't. Its work space is large and holds what must
// not stay.
std::string Crypt(const std::string& password, const std::string& setting) {
  const auto space = std::make_unique<crypt_data>();
  const char* const hash =
      ::crypt_rn(password.c_str(), setting.c_str(), space.get(), sizeof(crypt_data));
  std::string result(hash != nullptr ? hash : "");
  ::explicit_bzero(space.get(), sizeof(crypt_data));
  return result;
}

bool IsHash(const std::string& hash) {
  return std::any_of(std::begin(kMethods), std::end(kMethods),
                     [&](std::string_view method) { return hash.starts_with(method); }) &&
         ::crypt_checksalt(hash.c_str()) == CRYPT_SALT_OK;
}

// As many as there are up to `limit`.
std::string ReadAll(int descriptor, const std::string& path, std::size_t limit) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      throw MakeSystemError(Core::kFileReadFailure, path, errno, kSource.At("ReadAll", 10));
    }
    if (count == 0) return text;
    text.append(buffer, static_cast<std::size_t>(count));
    if (text.size() > limit) {
      throw MakeFileError(Core::kFileCorrupted, path, "There are more users than are read.",
                          kSource.At("ReadAll", 20));
    }
  }
}

void WriteAll(int descriptor, const std::string& path, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(descriptor, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      throw MakeSystemError(Core::kFileWriteFailure, path, errno, kSource.At("WriteAll", 30));
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

// Calls `process` with each line and its number.
template <class Process>
void ForEachLine(std::string_view text, Process&& process) {
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    process(text.substr(0, end), number);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
}

bool IsIgnored(std::string_view line) {
  return line.empty() || line.front() == '#';
}

void Check(int result, const Core::file_failure& failure, const std::string& path,
           unsigned int place) {
  if (result != 0) {
    throw MakeSystemError(failure, path, errno, kSource.At("SetPassword", place));
  }
}

// The file at `path`, locked until it goes: whoever replaces it holds the lock of the one that he
// replaces. Others than those who may read it can't hold it up.
class LockedFile : public Common::NonCopyable {
 public:
  explicit LockedFile(const std::string& path)
      : file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    if (file_.Get() < 0) {
      if (errno == ENOENT) return;
      throw MakeSystemError(Core::kFileOpenFailure, path, errno, kSource.At("SetPassword", 130));
    }
    Check(::fstat(file_.Get(), &status_), Core::kFileReadFailure, path, 140);
    if (!S_ISREG(status_.st_mode)) {
      throw MakeFileError(Core::kFileSecurityFailure, path, "It is no file.",
                          kSource.At("SetPassword", 145));
    }
    int result = 0;
    do {
      result = ::flock(file_.Get(), LOCK_EX);
    } while (result != 0 && errno == EINTR);
    Check(result, Core::kFileLockFailure, path, 150);
    // It may have been replaced meanwhile, and its owner and mode may have changed.
    struct stat now = {};
    is_current_ = ::stat(path.c_str(), &now) == 0 && now.st_dev == status_.st_dev &&
                  now.st_ino == status_.st_ino;
    Check(::fstat(file_.Get(), &status_), Core::kFileReadFailure, path, 155);
  }

  bool Exists() const { return file_.Get() >= 0; }
  bool IsCurrent() const { return is_current_; }
  const struct stat& GetStatus() const { return status_; }
  int Get() const { return file_.Get(); }

 private:
  const Descriptor file_;
  struct stat status_ = {};
  bool is_current_ = true;
};

// A new file beside `path` that goes again unless it takes its place.
class Replacement : public Common::NonCopyable {
 public:
  explicit Replacement(const std::string& path)
      : path_(path), name_(path + ".XXXXXX"), file_(::mkostemp(name_.data(), O_CLOEXEC)) {
    // With mode 0600.
    Check(file_.Get() < 0, Core::kFileCreateFailure, name_, 40);
  }
  ~Replacement() {
    if (!is_done_) ::unlink(name_.c_str());
  }

  void Write(std::string_view text) { WriteAll(file_.Get(), name_, text); }
  void TakeOwner(const struct stat& status) {
    struct stat own = {};
    Check(::fstat(file_.Get(), &own), Core::kFileReadFailure, name_, 45);
    if (status.st_uid != own.st_uid || status.st_gid != own.st_gid) {
      Check(::fchown(file_.Get(), status.st_uid, status.st_gid), Core::kFileSecurityFailure, name_,
            50);
    }
    if ((status.st_mode & 07777) != kGroupReads) return;
    Check(::fchmod(file_.Get(), kGroupReads), Core::kFileSecurityFailure, name_, 55);
  }
  // False if there is to be none at its place, but is one.
  bool TakePlace(bool replaces) {
    Check(::fsync(file_.Get()), Core::kFileWriteFailure, name_, 60);
    if (replaces) {
      Check(::rename(name_.c_str(), path_.c_str()), Core::kFileRenameFailure, path_, 70);
      is_done_ = true;
    } else if (::link(name_.c_str(), path_.c_str()) != 0) {
      if (errno == EEXIST) return false;
      Check(-1, Core::kFileCreateFailure, path_, 75);
    }
    const std::string folder = std::filesystem::absolute(path_).parent_path();
    const Descriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Check(opened.Get() < 0 || ::fsync(opened.Get()) != 0, Core::kFileWriteFailure, folder, 80);
    return true;
  }

 private:
  const std::string path_;
  std::string name_;
  const Descriptor file_;
  bool is_done_ = false;
};

}  // namespace

bool IsUserName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxUserName && name.front() != '#' &&
         std::none_of(name.begin(), name.end(), [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return c == ':' || byte < 0x20 || byte == 0x7F;
         });
}

bool IsPassword(std::string_view password) {
  return !password.empty() && password.size() <= kMaxPassword &&
         password.find_first_of(std::string_view("\0\n", 2)) == std::string_view::npos;
}

std::string HashPassword(const std::string& password) {
  char setting[CRYPT_GENSALT_OUTPUT_SIZE];
  std::string hash;
  if (::crypt_gensalt_rn(kMethods[0].data(), 0, nullptr, 0, setting, sizeof setting) != nullptr) {
    hash = Crypt(password, setting);
  }
  if (!IsHash(hash)) {
    throw MakeSystemError(Core::kFileSecurityFailure, "", errno, kSource.At("HashPassword", 90));
  }
  return hash;
}

bool MatchesHash(const std::string& password, const std::string& hash) {
  const std::string made = Crypt(password, hash);
  // The length of a hash is that of its method.
  if (made.size() != hash.size() || made.empty()) return false;
  unsigned int difference = 0;
  for (std::size_t i = 0; i < made.size(); ++i) {
    difference |= static_cast<unsigned int>(made[i] ^ hash[i]);
  }
  return difference == 0;
}

UserHashes ParseUsers(std::string_view text, const std::string& path) {
  UserHashes users;
  ForEachLine(text, [&](std::string_view line, std::size_t number) {
    if (IsIgnored(line)) return;
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view name = line.substr(0, colon);
    std::string hash(line.substr(std::min(colon + 1, line.size())));
    const char* reason = nullptr;
    if (!IsUserName(name) || !IsHash(hash)) {
      reason = " is not USER:HASH with a hash of yescrypt or sha512crypt.";
    } else if (!users.emplace(name, std::move(hash)).second) {
      reason = " names a user again.";
    }
    if (reason == nullptr) return;
    throw MakeFileError(Core::kFileCorrupted, path,
                        std::string("Line ").append(std::to_string(number)).append(reason),
                        kSource.At("ParseUsers", 100));
  });
  return users;
}

std::shared_ptr<const UserHashes> UserFile::Read() {
  const std::lock_guard lock(mutex_);
  const Descriptor file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (file.Get() < 0 || ::fstat(file.Get(), &status) != 0) {
    users_.reset();
    throw MakeSystemError(Core::kFileOpenFailure, path_, errno, kSource.At("Read", 110));
  }
  const Stamp stamp{status.st_dev, status.st_ino, status.st_size, status.st_ctim.tv_sec,
                    status.st_ctim.tv_nsec};
  if (users_ != nullptr && stamp == stamp_) return users_;
  users_.reset();
  const bool is_own = status.st_uid == ::geteuid() || status.st_uid == 0;
  if (!S_ISREG(status.st_mode) || !is_own || (status.st_mode & (S_IRWXO | S_IWGRP)) != 0) {
    throw MakeFileError(Core::kFileSecurityFailure, path_,
                        "It must be a file of this user or of root that others can't read and only "
                        "its owner can write.",
                        kSource.At("Read", 120));
  }
  users_ = std::make_shared<const UserHashes>(
      ParseUsers(ReadAll(file.Get(), path_, kMaxFileSize), path_));
  stamp_ = stamp;
  return users_;
}

namespace {

// The text of a file with that line in place of the user's, or behind all others.
std::string SetLine(std::string_view former, const std::string& user, const std::string& line) {
  std::string text;
  bool is_set = false;
  ForEachLine(former, [&](std::string_view old, std::size_t) {
    if (!IsIgnored(old) && old.substr(0, old.find(':')) == user) {
      text += line;
      is_set = true;
    } else {
      text.append(old).append("\n");
    }
  });
  if (!is_set) text += line;
  return text;
}

}  // namespace

void SetPassword(const std::string& path, const std::string& user, const std::string& password) {
  // Takes its time, so before others are held up.
  const std::string line =
      std::string(user).append(":").append(HashPassword(password)).append("\n");
  // Whoever comes too late looks again.
  for (;;) {
    const LockedFile file(path);
    if (!file.IsCurrent()) continue;
    std::string former;
    if (file.Exists()) former = ReadAll(file.Get(), path, kMaxFileSize);
    // A file that isn't in order is for its owner to repair.
    ParseUsers(former, path);
    Replacement replacement(path);
    if (file.Exists()) replacement.TakeOwner(file.GetStatus());
    replacement.Write(SetLine(former, user, line));
    if (replacement.TakePlace(file.Exists())) return;
  }
}

}  // namespace ObjProbeService
