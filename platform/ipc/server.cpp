#include "platform/ipc/server.h"

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/server"};

// Can't listen yet.
class UnlisteningServer final : public Server {
 public:
  void ListenLocal(unsigned int) override {
    throw MakeError(kListenFailed, kSource.At("ListenLocal", 10));
  }
  std::uint16_t ListenTls(const std::string&, const std::string&, const std::string&) override {
    throw MakeError(kListenFailed, kSource.At("ListenTls", 20));
  }
  void Stop() override {}
};

}  // namespace

std::unique_ptr<Server> Server::Create(ServiceHost&, const Limits&) {
  return std::make_unique<UnlisteningServer>();
}

}  // namespace Platform::Ipc
