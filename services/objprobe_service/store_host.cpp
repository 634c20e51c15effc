#include "services/objprobe_service/store_host.h"

#include <utility>

#include "core/common/line_tag.h"
#include "services/objprobe_service/service_error.h"
#include "tools/objprobe_store/error_text.h"

namespace ObjProbeService {

namespace {

constexpr Common::SourceFile kSource{"services/objprobe_service/store_host"};

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

StoreHost::StoreHost(Authenticator* authenticator, std::set<std::string> local_users,
                     ViewService::Log log)
    : authenticator_(authenticator), local_users_(std::move(local_users)), log_(std::move(log)) {}

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
    std::vector<Platform::Ipc::InterfaceVersion>& interfaces, Common::Error& error) {
  const auto found = services_.find(service_id);
  const std::string client =
      (found != services_.end() ? found->second.keyword : std::to_string(service_id)) + ": " +
      Describe(peer);
  if (peer.is_local && !local_users_.contains(peer.user)) {
    error = MakeServiceError(kUserRefused, kSource.At("Open", 10));
  } else if (found == services_.end()) {
    error = MakeServiceError(kUnknownService, kSource.At("Open", 20));
  }
  if (error.IsFailure()) {
    log_(client + " refused: " + StoreTool::DescribeError(error));
    return nullptr;
  }
  interfaces = found->second.views->GetInterfaces();
  auto session = std::make_unique<LoggedSession>(found->second.views->Open(client), log_, client);
  log_(client + ": connected");
  return session;
}

}  // namespace ObjProbeService
