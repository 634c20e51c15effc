#include "enterprise/common/ipc/client/lib/client.h"

#include "core/common/line_tag.h"
#include "core/common/message_table.h"

namespace Binding {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/ipc/client/lib/client"};

Common::Error ConnectLocalImpl(unsigned int service_id, unsigned int reserved,
                               std::unique_ptr<AccessPoint>& access_point, const WordPair& pair) {
  Common::Error outcome;
  const std::unique_ptr<Browser> browser =
      IPCClient_GetLocalBrowser(outcome, 0, access_point, pair);
  if (outcome.IsFailure()) {
    Common::Error error(kNoLocalBrowserCode,
                        Common::GetMessageText(Common::MessageRow::NoLocalBrowser),
                        kSource.At("ConnectLocalImpl", 38));
    error.SetReason(outcome);
    return error;
  }
  return browser->Connect(service_id, reserved, access_point, pair);
}

}  // namespace

ScopedIPCClient::ScopedIPCClient() {
  IPCClient_Init(0, result_);
}

ScopedIPCClient::~ScopedIPCClient() {
  Common::Error dropped;
  IPCClient_Deinit(dropped);
}

std::unique_ptr<Binder> CreateBinder() {
  return IPCClient_CreateBinder();
}

Common::Error ConnectLocal(unsigned int service_id, unsigned int reserved,
                           std::unique_ptr<AccessPoint>& access_point, const WordPair& pair) {
  return ConnectLocalImpl(service_id, reserved, access_point, pair);
}

}  // namespace Binding
