#pragma once

#include <memory>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/ipc/client_library.h"

// The start of the IPC client and the way to the services. All on the main thread.

namespace Binding {

// The local services can't be found; the reason is the library's.
inline constexpr unsigned int kNoLocalBrowserCode = 0xAD001F;

// The IPC client runs while this object lives. Everything that came from the library goes before.
class ScopedIPCClient : public Common::NonCopyable {
 public:
  // A failure to start stays in the result; nothing is thrown.
  ScopedIPCClient();
  // Stops the client, also one that didn't start; a failure of that is dropped.
  virtual ~ScopedIPCClient();

  // The outcome of the start.
  const Common::Error& GetResult() const { return result_; }

 private:
  Common::Error result_;
};

std::unique_ptr<Binder> CreateBinder();

// Connects to a service of this host: kNoLocalBrowserCode, or what the browser says, unchanged.
// `reserved` is 0 and `pair` is zero.
Common::Error ConnectLocal(unsigned int service_id, unsigned int reserved,
                           std::unique_ptr<AccessPoint>& access_point, const WordPair& pair);

}  // namespace Binding
