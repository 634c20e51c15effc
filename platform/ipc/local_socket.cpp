#include "platform/ipc/local_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/local_socket"};

constexpr char kSystemDirectory[] = "/run/velorin";
constexpr int kBacklog = 128;
constexpr std::chrono::milliseconds kBacklogPause{10};
// Another server of the user has the lock for some milliseconds.
constexpr std::chrono::milliseconds kLockTime{1000};

bool IsOwn(uid_t user) {
  return user == 0 || user == ::geteuid();
}

std::string GetSocketName(unsigned int service_id) {
  return "service-" + std::to_string(service_id) + ".sock";
}

// The address of a socket in an open directory. A path that is too long for it goes by the
// descriptor.
sockaddr_un MakeAddress(const std::string& directory, int descriptor, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string path = directory + "/" + name;
  if (path.size() >= sizeof address.sun_path) {
    path = "/proc/self/fd/" + std::to_string(descriptor) + "/" + name;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

UniqueDescriptor MakeSocket() {
  UniqueDescriptor result(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!result) throw MakeSystemError(kNoResources, errno, kSource.At("MakeSocket", 10));
  return result;
}

// 0 or an errno; EAGAIN: it lives, but its queue is full.
int Connect(int descriptor, const sockaddr_un& address) {
  while (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

bool GetPeerUser(int descriptor, uid_t& user) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
  user = credentials.uid;
  return true;
}

// Held while a server looks after its socket, so that no two of a user do. Of a file that nobody
// else can open: what others can lock, they can hold for ever.
UniqueDescriptor LockSockets(const UniqueDescriptor& folder, const std::string& directory) {
  const std::string name = "servers-" + std::to_string(::geteuid()) + ".lock";
  UniqueDescriptor result(::openat(folder.Get(), name.c_str(),
                                   O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  const auto fail = [&](int failure, std::uint32_t line) {
    throw MakeSystemError(kListenFailed, failure, kSource.At("LockSockets", line),
                          directory + "/" + name);
  };
  struct stat found {};
  if (!result || ::fstat(result.Get(), &found) != 0) fail(errno, 20);
  if (!S_ISREG(found.st_mode) || found.st_uid != ::geteuid() ||
      (found.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    fail(EPERM, 22);
  }
  const Clock::time_point deadline = Clock::now() + kLockTime;
  while (::flock(result.Get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR && errno != EWOULDBLOCK) fail(errno, 24);
    if (Clock::now() >= deadline) fail(ETIMEDOUT, 26);
    ::poll(nullptr, 0, static_cast<int>(kBacklogPause.count()));
  }
  return result;
}

}  // namespace

std::string GetRuntimeDirectory() {
  const char* const own = std::getenv("VELORIN_IPC_DIR");
  if (own != nullptr && *own != 0) return own;
  const char* const user = std::getenv("XDG_RUNTIME_DIR");
  if (user != nullptr && *user != 0) return std::string(user).append("/velorin");
  return kSystemDirectory;
}

UniqueDescriptor OpenRuntimeDirectory(const std::string& directory) {
  UniqueDescriptor result(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat found {};
  if (!result && errno == EACCES) {
    // One of another user that can't even be looked into.
    throw MakeSystemError(kUnsafeRuntimeDirectory, EACCES, kSource.At("OpenRuntimeDirectory", 30),
                          directory);
  }
  if (!result || ::fstat(result.Get(), &found) != 0) {
    throw MakeSystemError(kNoRuntimeDirectory, errno, kSource.At("OpenRuntimeDirectory", 40),
                          directory);
  }
  const bool others_write = (found.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (!IsOwn(found.st_uid) || (others_write && (found.st_mode & S_ISVTX) == 0)) {
    throw MakeError(kUnsafeRuntimeDirectory, kSource.At("OpenRuntimeDirectory", 50), directory);
  }
  return result;
}

UniqueDescriptor ConnectLocalService(const std::string& directory, unsigned int service_id,
                                     Clock::time_point deadline) {
  const UniqueDescriptor folder = OpenRuntimeDirectory(directory);
  const std::string name = GetSocketName(service_id);
  struct stat found {};
  if (::fstatat(folder.Get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
    throw MakeSystemError(kNoLocalService, errno, kSource.At("ConnectLocalService", 60),
                          directory + "/" + name);
  }
  if (!S_ISSOCK(found.st_mode)) {
    throw MakeSystemError(kNoLocalService, ENOTSOCK, kSource.At("ConnectLocalService", 65),
                          directory + "/" + name);
  }
  if (!IsOwn(found.st_uid)) {
    throw MakeError(kWrongOwner, kSource.At("ConnectLocalService", 70), directory + "/" + name);
  }
  UniqueDescriptor result = MakeSocket();
  const sockaddr_un address = MakeAddress(directory, folder.Get(), name);
  for (;;) {
    const int failure = Connect(result.Get(), address);
    if (failure == 0) break;
    if (failure != EAGAIN) {
      throw MakeSystemError(failure == EACCES ? kNotAdmitted : kNoLocalService, failure,
                            kSource.At("ConnectLocalService", 80), directory + "/" + name);
    }
    // The service has a queue of clients that wait; no readiness tells when it gets shorter.
    if (Clock::now() >= deadline) {
      throw MakeSystemError(kConnectTimedOut, ETIMEDOUT, kSource.At("ConnectLocalService", 90),
                            directory + "/" + name);
    }
    ::poll(nullptr, 0, static_cast<int>(kBacklogPause.count()));
  }
  uid_t user = 0;
  if (!GetPeerUser(result.Get(), user) || user != found.st_uid) {
    throw MakeError(kWrongOwner, kSource.At("ConnectLocalService", 100), directory + "/" + name);
  }
  return result;
}

bool IsAdmitted(int descriptor, uid_t& user) {
  user = static_cast<uid_t>(-1);
  return GetPeerUser(descriptor, user) && IsOwn(user);
}

LocalListener::LocalListener(const std::string& directory, unsigned int service_id)
    : directory_(directory), name_(GetSocketName(service_id)) {
  const mode_t mode = directory == kSystemDirectory ? 0755 : 0700;
  if (::mkdir(directory.c_str(), mode) != 0 && errno != EEXIST) {
    throw MakeSystemError(kListenFailed, errno, kSource.At("LocalListener", 110), directory);
  }
  const UniqueDescriptor folder = OpenRuntimeDirectory(directory);
  const UniqueDescriptor lock = LockSockets(folder, directory);

  const std::string path = directory + "/" + name_;
  const sockaddr_un address = MakeAddress(directory, folder.Get(), name_);
  struct stat found {};
  if (::fstatat(folder.Get(), name_.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) {
    if (!S_ISSOCK(found.st_mode)) {
      throw MakeSystemError(kListenFailed, EEXIST, kSource.At("LocalListener", 120), path);
    }
    if (Connect(MakeSocket().Get(), address) != ECONNREFUSED) {
      throw MakeSystemError(kSocketInUse, EADDRINUSE, kSource.At("LocalListener", 130), path);
    }
    ::unlinkat(folder.Get(), name_.c_str(), 0);
  }

  socket_ = MakeSocket();
  // Nobody else may come in between bind and a later chmod, so its rights are those of the
  // descriptor from the start.
  if (::fchmod(socket_.Get(), 0600) != 0 ||
      ::bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw MakeSystemError(kListenFailed, errno, kSource.At("LocalListener", 140), path);
  }
  if (::fstatat(folder.Get(), name_.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) {
    device_ = found.st_dev;
    inode_ = found.st_ino;
  }
  if (::listen(socket_.Get(), kBacklog) != 0) {
    const int failure = errno;
    ::unlinkat(folder.Get(), name_.c_str(), 0);
    throw MakeSystemError(kListenFailed, failure, kSource.At("LocalListener", 150), path);
  }
}

LocalListener::~LocalListener() {
  try {
    const UniqueDescriptor folder = OpenRuntimeDirectory(directory_);
    const UniqueDescriptor lock = LockSockets(folder, directory_);
    struct stat found {};
    if (::fstatat(folder.Get(), name_.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
        found.st_dev == device_ && found.st_ino == inode_) {
      ::unlinkat(folder.Get(), name_.c_str(), 0);
    }
  } catch (...) {
    // What stands in the way of removing it is no concern of those who stop: the next server finds
    // a leftover.
  }
}

}  // namespace Platform::Ipc
