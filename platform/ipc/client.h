#pragma once

#include <memory>
#include <string>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/ipc/client_library.h"
#include "platform/ipc/server.h"

namespace Platform::Ipc {

struct ClientOptions {
  Limits limits;
  // Empty: what the environment says at the time (docs/transport.md).
  std::string runtime_directory;
  std::string authorities_file;
};

// The client that is behind the functions of the IPC client library. Costs nothing until the first
// connection starts its thread for input and output. Threads: any.
class Client : public Common::NonCopyable {
 public:
  // Is stopped when the last copy of the pointer goes.
  static std::shared_ptr<Client> Create(const ClientOptions& options = {});
  virtual ~Client() = default;

  virtual std::unique_ptr<Binding::Binder> CreateBinder() = 0;
  // Null and an error when there is no directory for services, or none that is safe.
  virtual std::unique_ptr<Binding::Browser> GetLocalBrowser(Common::Error& error) = 0;

  // Ends all connections, and with them all calls, and waits until every callback has returned.
  // What came from the client and is still there fails from then on. Not from a callback
  // (kDeinitInCallback). The second call does nothing.
  virtual Common::Error Stop() = 0;
};

}  // namespace Platform::Ipc
