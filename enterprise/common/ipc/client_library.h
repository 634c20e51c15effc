#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "enterprise/common/ipc/request.h"

// Port: what this program calls of the IPC client library, which reaches the services, and what the
// library calls back. Failures are values of Common::Error; nothing here throws one, and what a
// request throws, be it no Common::Error, is a failure of its job. Nothing comes out of a handler.

namespace JobManagement {

// Is told how a started job goes, on a thread of the library, one call after the other, perhaps
// before Start has returned. A handler may block, and make calls of its own and wait for them.
class JobHandler : public Common::NonCopyable {
 public:
  virtual ~JobHandler() = default;
  virtual void OnSuccess() = 0;
  virtual void OnFailure(const Common::Error& error) = 0;
  // Nobody here has a use for the four that do nothing.
  virtual void OnReserved1() {}
  virtual void OnReserved2() {}
  // Once, behind OnSuccess or OnFailure, when the request is no longer in use. From the beginning
  // of this call on, the library touches neither job nor handler, request or access point any more:
  // they may be deleted on any thread, before this call or Start has returned.
  virtual void OnFinished() = 0;
  virtual void OnReserved3() {}
  virtual void OnReserved4() {}
  // As if the owner of the job had cancelled it. Not to be called on a thread that has to call
  // OnFinished; the libraries in use never call it.
  virtual void OnCancel() = 0;
};

// Carries one request: writes its packet and lets it read the reply. Used once. Deleting it is
// allowed before it was started and from its OnFinished on.
class Job : public Common::NonCopyable {
 public:
  virtual ~Job() = default;
  // Runs the job to its end. The error is the final one: a failure of writing the request, of the
  // transport, of reading the reply, or what the reply has as "result". `handler` is null. Any
  // thread will do, those of the library's own callbacks included. Fails when the service, though
  // it lives, doesn't answer within a minute: what takes longer by its nature is started.
  virtual Common::Error Run(JobHandler* handler) = 0;
  // Lets the job run; `handler` is borrowed until OnFinished. After an error it is told nothing. A
  // failure of writing the request is such an error or comes by OnFailure.
  virtual Common::Error Start(JobHandler* handler) = 0;
  // A started job ends soon, by OnFinished as ever, perhaps inside this call; the request is out of
  // use by then, as always. Before Start it makes Start fail, behind the end it does nothing. It
  // doesn't wait for the handler. Threads: any.
  virtual Common::Error Cancel() = 0;
};

}  // namespace JobManagement

namespace Binding {

// A connection to one service. Threads: any. The last reference may go on any thread, also on one
// of the library.
class AccessPoint : public Common::NonCopyable {
 public:
  virtual ~AccessPoint() = default;
  // Fills `job`, except when it fails; a null request is such a failure. The job is the caller's
  // and must go before the access point.
  virtual Common::Error CreateJob(std::unique_ptr<Request> request,
                                  std::unique_ptr<JobManagement::Job>& job) = 0;
  // The same as long as the connection is the same, which a lost one remains.
  virtual std::uint32_t GetConnectionKey() = 0;
  // The version of the interface with the number `component_id`. What `further` gets isn't used.
  virtual Common::Error GetInterfaceVersion(std::uint32_t component_id, std::uint32_t& version,
                                            std::uint32_t& further) = 0;
};

// Goes with some calls and is always zero.
struct WordPair {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
};

// Finds the services of one host.
class Browser : public Common::NonCopyable {
 public:
  virtual ~Browser() = default;
  // `reserved` is 0. Fills `access_point`, except when it fails; it may outlive the browser.
  virtual Common::Error Connect(unsigned int service_id, unsigned int reserved,
                                std::unique_ptr<AccessPoint>& access_point,
                                const WordPair& pair) = 0;
};

// Where to bind to, and as whom.
struct ConnectionRecord {
  std::string host;  // "name", "name:port" or "[address]:port"
  Common::String user;
  Common::String password;
  Common::String reserved;  // empty
};

class Binder : public Common::NonCopyable {
 public:
  virtual ~Binder() = default;
  // Fills `browser`, except when it fails; it may outlive the binder.
  virtual Common::Error Bind(const ConnectionRecord& record, std::unique_ptr<Browser>& browser) = 0;
};

}  // namespace Binding

// Each `error` is success when it is handed in and set to the outcome. Each `reserved` is 0.

// Starts the library, whose threads may come with the first connection; on the main thread, before
// anything else of it.
void IPCClient_Init(unsigned int reserved, Common::Error& error);
// Stops the library, also behind a start that failed; not on a thread of it. The caller has no job,
// access point, browser or binder left. Callbacks that are under way may have: it returns when they
// have returned and let go.
void IPCClient_Deinit(Common::Error& error);
// Never null.
std::unique_ptr<Binding::Binder> IPCClient_CreateBinder();
// The browser of the services of this host; null only with an error. It may look at the place of
// the access point and at the pair that its Connect is going to get.
std::unique_ptr<Binding::Browser> IPCClient_GetLocalBrowser(
    Common::Error& error, unsigned int reserved,
    std::unique_ptr<Binding::AccessPoint>& access_point, const Binding::WordPair& pair);
