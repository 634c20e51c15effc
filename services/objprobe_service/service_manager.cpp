#include "services/objprobe_service/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "core/common/unix/safe_close.h"
#include "services/objprobe_service/event_log.h"

namespace ObjProbeService {

void NotifyServiceManager(const std::string& state) {
  const char* const name = std::getenv("NOTIFY_SOCKET");
  if (name == nullptr || *name == 0) return;
  const std::size_t size = std::strlen(name);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if ((*name != '/' && *name != '@') || size >= sizeof address.sun_path) {
    return LogEvent("NOTIFY_SOCKET names no socket.");
  }
  std::memcpy(address.sun_path, name, size);
  // An abstract name begins with a 0 and isn't ended by one.
  if (*name == '@') address.sun_path[0] = 0;
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool is_sent =
      socket >= 0 && ::sendto(socket, state.data(), state.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address),
                              static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size)) >= 0;
  const int errnum = errno;
  if (socket >= 0) Common::SafeClose(socket);
  if (!is_sent) {
    LogEvent(std::string("The service manager was not told: ").append(std::strerror(errnum)));
  }
}

}  // namespace ObjProbeService
