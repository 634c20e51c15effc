#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/common/non_copyable.h"
#include "enterprise/common/dml/post_office.h"
#include "platform/ipc/server.h"
#include "services/objprobe_service/pull_timer.h"
#include "services/objprobe_service/service_limits.h"

namespace ObjProbeService {

// The view manager of one store. Threads: any.
//
// What a client asks of a session is its own: numbers of views and transmissions name nothing on
// another connection. They are never 0. Each call is answered once, by a reply whose "result" says
// how it ended; what names no method of the interface by an error in place of a reply.
class ViewService : public Common::NonCopyable {
 public:
  // Told of what an operator wants to know, in one line of UTF-8.
  using Log = std::function<void(const std::string& line)>;

  // `version` of the interface, 1 or 2: the first has no transmissions.
  ViewService(std::unique_ptr<Dml::PostOffice> office, const ServiceLimits& limits,
              unsigned int version, Log log);
  // The sessions are closed. Waits for what still reads the store.
  ~ViewService();

  // `client` names it in the log.
  std::unique_ptr<Platform::Ipc::Session> Open(const std::string& client);
  std::vector<Platform::Ipc::InterfaceVersion> GetInterfaces() const;

 private:
  class Connection;
  class ViewSession;

  const ServiceLimits limits_;
  const unsigned int version_;
  const Log log_;
  std::atomic<unsigned int> last_transmission_{0};
  PullTimer timer_;
  // The last one to be made and the first one to go: its work uses everything above.
  const std::unique_ptr<Dml::PostOffice> office_;
};

}  // namespace ObjProbeService
