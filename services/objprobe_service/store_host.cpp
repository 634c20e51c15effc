#include "services/objprobe_service/store_host.h"

#include <utility>

namespace ObjProbeService {

namespace {

std::string Describe(const Platform::Ipc::Peer& peer) {
  if (peer.is_local) return std::string("local user ").append(peer.user);
  return std::string("user \"").append(peer.user).append("\" at ").append(peer.address);
}

}  // namespace

// Tells of its end.
class StoreHost::LoggedSession final : public Platform::Ipc::Session {
 public:
  LoggedSession(std::unique_ptr<Session> session, ViewService::Log log, std::string client)
      : session_(std::move(session)), log_(std::move(log)), client_(std::move(client)) {}
  void OnCall(std::shared_ptr<Platform::Ipc::ServerCall> call) override {
    session_->OnCall(std::move(call));
  }
  void OnClosed() override {
    session_->OnClosed();
    log_(client_ + ": disconnected");
  }

 private:
  const std::unique_ptr<Session> session_;
  const ViewService::Log log_;
  const std::string client_;
};

void StoreHost::Add(unsigned int service_id, const std::string& keyword,
                    std::unique_ptr<ViewService> service) {
  services_[service_id] = {keyword, std::move(service)};
}

bool StoreHost::Authenticate(const std::string& user, const std::string& password,
                             const std::string& address) {
  return authenticator_ != nullptr && authenticator_->Authenticate(user, password, address);
}

std::unique_ptr<Platform::Ipc::Session> StoreHost::Open(
    unsigned int service_id, const Platform::Ipc::Peer& peer,
    std::vector<Platform::Ipc::InterfaceVersion>& interfaces, Common::Error&) {
  const auto found = services_.find(service_id);
  if (found == services_.end()) {
    log_(Describe(peer) + " asked for the unknown service " + std::to_string(service_id));
    return nullptr;
  }
  const std::string client = found->second.keyword + ": " + Describe(peer);
  interfaces = found->second.views->GetInterfaces();
  auto session = std::make_unique<LoggedSession>(found->second.views->Open(client), log_, client);
  log_(client + ": connected");
  return session;
}

}  // namespace ObjProbeService
