#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/ipc/client_library.h"
#include "platform/async_service/elastic_pool.h"

// A service in the process, behind the port of the IPC library: what it answers to a call, when and
// on which thread is up to the test.

namespace TestSupport {

// What the transport ends a cancelled call with. No result shows it.
inline constexpr std::uint32_t kTransportCanceled = 0xAD01FF;

// A call as the service has it. Ends once, by whichever comes first. Threads: any. Those that end
// it tell false when it had ended before.
class ServiceCall {
 public:
  ServiceCall(std::unique_ptr<Binding::Request> request);

  const std::string& GetMethod() const { return method_; }  // "AddInterest"
  const std::string& GetAsked() const { return asked_; }    // the elements of the arguments
  // The argument or field of one that is a unit: in the innermost of these elements, each the first
  // of its name.
  Por::SharedUnit GetUnit(std::initializer_list<const char*> path) const;

  // Ends on this thread, with a reply that has `result` and behind it these elements.
  bool Reply(const std::string& results = {}, const Common::Error& result = {});
  // With a packet of these elements, which need not be a reply.
  bool ReplyElements(const std::string& elements, const Common::Error& result = {});
  // With a failure of the transport.
  bool Fail(const Common::Error& error);
  // The client has asked for the end.
  bool IsCanceled() const;
  bool HasEnded() const;

 private:
  friend class ScriptedService;
  friend class ScriptedJob;

  void SetHandler(JobManagement::JobHandler* handler);
  void SetCanceled();
  bool Claim();
  void End(const Common::Error& result);
  Common::Error Wait();

  const std::unique_ptr<Binding::Request> request_;
  std::string method_;
  std::string asked_;
  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  JobManagement::JobHandler* handler_ = nullptr;  // null: somebody waits
  bool claimed_ = false;
  bool ended_ = false;
  bool canceled_ = false;
  Common::Error result_;
};

using ServiceCallPtr = std::shared_ptr<ServiceCall>;

// Made before its connections and destroyed behind their last call. Its destructor waits for its
// threads.
class ScriptedService {
 public:
  using Script = std::function<void(const ServiceCallPtr&)>;

  // How the transport takes the client's cancel.
  enum class Canceling {
    kOnThread,  // the call ends on a thread of the service
    kInside,    // inside the cancel
    kNever,     // the call goes on until it is answered
  };

  ScriptedService() = default;
  ~ScriptedService();

  std::unique_ptr<Binding::AccessPoint> Connect();

  // What happens to the calls of a method, on the thread that starts them. A call without a script
  // waits for Next.
  void On(const std::string& method, Script script);
  // Answers them where they start.
  void Answer(const std::string& method, const std::string& results = {},
              const Common::Error& result = {});
  // Answers so those that end a view, a channel or a transmission.
  void AnswerFarewells();
  // Runs on a thread of the service.
  void Post(std::function<void()> work);

  // The oldest call of the method that waits; comes when there is one. Throws after 10 seconds.
  ServiceCallPtr Next(const std::string& method);
  // The methods called so far, each followed by a blank.
  std::string GetLog() const;
  int Count(const std::string& method) const;
  // Waits until the method was called that often. Throws after 10 seconds.
  void AwaitCount(const std::string& method, int count);

  // Set before use.
  std::function<void()> in_create;  // comes before each job is made
  Common::Error create_error;       // of the job
  bool creates_nothing = false;     // success without a job
  Common::Error start_error;
  Canceling canceling = Canceling::kOnThread;
  std::uint32_t connection_key = 1;
  std::uint32_t interface_version = 2;
  Common::Error version_error;

 private:
  friend class ScriptedAccessPoint;
  friend class ScriptedJob;

  void Begin(const ServiceCallPtr& call);

  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::map<std::string, Script> scripts_;
  std::map<std::string, std::deque<ServiceCallPtr>> waiting_;
  std::vector<std::string> log_;
  Platform::ElasticPool pool_;
};

// The results of replies of the view manager.
std::string SubscribeResults(unsigned int transmission);
std::string AddInterestResults(unsigned int transmission, unsigned int channel,
                               const std::vector<Por::SharedUnit>& snapshot = {});
std::string ReadSubscriptionResults(const std::vector<Dml::ViewManagement::ViewUpdate>& updates);
std::string AcquireUpdatesResults(const std::vector<Dml::ViewManagement::ViewUpdate>& updates);
std::string OpenViewResults(const std::vector<Por::SharedUnit>& snapshot, unsigned int view_id = 0);

}  // namespace TestSupport
