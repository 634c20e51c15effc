#pragma once

#include <string>

namespace ObjProbeService {

// Tells the service manager that started this process how it goes, such as "READY=1": a datagram to
// the socket that it names in NOTIFY_SOCKET. Without such a name nothing is sent; a failure is
// logged.
void NotifyServiceManager(const std::string& state);

}  // namespace ObjProbeService
