#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "platform/ipc/unique_descriptor.h"

// The sockets of the services of this computer, in the runtime directory (docs/transport.md).

namespace Platform::Ipc {

using Clock = std::chrono::steady_clock;

// VELORIN_IPC_DIR, else $XDG_RUNTIME_DIR/velorin, else /run/velorin.
std::string GetRuntimeDirectory();

// The runtime directory, open, after it was found to be safe. Throws Common::Error:
// kNoRuntimeDirectory, kUnsafeRuntimeDirectory.
UniqueDescriptor OpenRuntimeDirectory(const std::string& directory);

// A connection to the service. It does not block, and its peer was found to be who it must be.
// Throws Common::Error.
UniqueDescriptor ConnectLocalService(const std::string& directory, unsigned int service_id,
                                     Clock::time_point deadline);

// Whether a client of a server is let in: its user, or -1 when the system doesn't tell.
bool IsAdmitted(int descriptor, uid_t& user);

// The socket of a service, listened on from its construction until it goes, when it is removed.
class LocalListener : public Common::NonCopyable {
 public:
  // Makes the directory if it is missing. Throws Common::Error.
  LocalListener(const std::string& directory, unsigned int service_id);
  ~LocalListener();

  int Get() const { return socket_.Get(); }

 private:
  const std::string directory_;
  const std::string name_;
  UniqueDescriptor socket_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace Platform::Ipc
