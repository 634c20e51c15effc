#include "services/objprobe_service/event_log.h"

#include <unistd.h>

#include <cerrno>

#include "platform/console/error_text.h"

namespace ObjProbeService {

void LogEvent(const std::string& text) {
  const std::string line =
      std::string("objprobe-service: ").append(Platform::Console::MakePrintable(text)).append("\n");
  ssize_t result = 0;
  do {
    result = ::write(STDERR_FILENO, line.data(), line.size());
  } while (result < 0 && errno == EINTR);
}

}  // namespace ObjProbeService
