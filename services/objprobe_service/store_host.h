#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/ipc/server.h"
#include "services/objprobe_service/authenticator.h"
#include "services/objprobe_service/view_service.h"

namespace ObjProbeService {

// The services of this program. Remote clients are let in by the authenticator; of this computer
// the transport lets in none but root and the user of the process.
class StoreHost final : public Platform::Ipc::ServiceHost {
 public:
  // `authenticator` may be null: then no remote client is let in.
  StoreHost(Authenticator* authenticator, ViewService::Log log)
      : authenticator_(authenticator), log_(std::move(log)) {}

  // Before the first client comes. `keyword` names it in the log.
  void Add(unsigned int service_id, const std::string& keyword,
           std::unique_ptr<ViewService> service);

  bool Authenticate(const std::string& user, const std::string& password,
                    const std::string& address) override;
  std::unique_ptr<Platform::Ipc::Session> Open(
      unsigned int service_id, const Platform::Ipc::Peer& peer,
      std::vector<Platform::Ipc::InterfaceVersion>& interfaces, Common::Error& error) override;

 private:
  class LoggedSession;

  struct Service {
    std::string keyword;
    std::unique_ptr<ViewService> views;
  };

  Authenticator* const authenticator_;
  const ViewService::Log log_;
  std::map<unsigned int, Service> services_;
};

}  // namespace ObjProbeService
