#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "core/common/non_copyable.h"

// Users and their passwords: a text file of lines USER:HASH, where HASH is what crypt(3) makes with
// a salt of its own by the methods yescrypt ("$y$") or sha512crypt ("$6$"). Empty lines and lines
// that begin with "#" count for nothing.

namespace ObjProbeService {

using UserHashes = std::map<std::string, std::string, std::less<>>;

// Longest name, in bytes. It holds no colon and no control character and begins with no "#".
inline constexpr std::size_t kMaxUserName = 256;
// Longest password, in bytes; it holds no 0 and no line end. (crypt(3) takes that many.)
inline constexpr std::size_t kMaxPassword = 511;
bool IsUserName(std::string_view name);
bool IsPassword(std::string_view password);

// The hash of a password with a new salt, by yescrypt at the cost that crypt(3) recommends. Throws
// Common::Error of the system.
std::string HashPassword(const std::string& password);
// Whether that is the password. Takes as long for a wrong one as for the right one.
bool MatchesHash(const std::string& password, const std::string& hash);

// The users in a text. Throws Common::Error with `path` and the number of a line that is none of
// the above, or names a user again.
UserHashes ParseUsers(std::string_view text, const std::string& path);

// The file of users of a running service. Threads: any.
class UserFile : public Common::NonCopyable {
 public:
  explicit UserFile(std::string path) : path_(std::move(path)) {}

  // What the file says now; it is read again when it has changed. Throws Common::Error: the
  // system's failures; 0x40023 when others than its owner may write it or others than owner and
  // group may read it, or when its owner is neither this process's user nor root; what ParseUsers
  // throws. So a file that isn't in order lets nobody in.
  std::shared_ptr<const UserHashes> Read();

 private:
  struct Stamp {
    unsigned long long device = 0;
    unsigned long long number = 0;
    long long size = -1;
    long long changed_seconds = 0;
    long long changed_nanoseconds = 0;
    bool operator==(const Stamp&) const = default;
  };

  const std::string path_;
  std::mutex mutex_;  // guards the fields below
  Stamp stamp_;
  std::shared_ptr<const UserHashes> users_;
};

// Gives a user a password, in a file that is made if it is missing. The file is replaced as a
// whole: a reader sees the old one or the new one, and so does a computer that fails meanwhile. Of
// several processes and threads that do so one waits for the other.
// Owner and group stay the same, and mode 0640 does; any other one becomes 0600, that of a new
// file. Throws Common::Error.
void SetPassword(const std::string& path, const std::string& user, const std::string& password);

}  // namespace ObjProbeService
