#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "enterprise/common/ipc/client_library.h"
#include "enterprise/common/ipc/request_impl.h"
#include "platform/ipc/client.h"
#include "platform/ipc/server.h"
#include "tests/support/temporary_folder.h"

// A service that does what the method of a call says, and calls of it.

namespace Platform::Ipc::Test {

inline constexpr unsigned int kServiceId = 33;
inline constexpr std::uint32_t kComponent = 271;

enum Method : std::uint32_t {
  kEcho = 1,     // answers the text
  kFailing = 2,  // "result" is an error with kResultCode
  kWaiting = 3,  // answers nothing until it is cancelled or released
  kLong = 4,     // answers as many bytes as the text says
  kFault = 5,    // an error with kFaultCode in place of a packet
  kDropping = 6,
  kGarbage = 7,  // a packet that is none
  kThrowing = 8,
  kEmpty = 9,  // a packet without a byte
};

inline constexpr std::uint32_t kResultCode = 0xFC1234;
inline constexpr std::uint32_t kFaultCode = 0xFC4321;

// Sends a text, and gets one.
class TextRequest final : public Binding::Detail::RequestBase {
 public:
  TextRequest(std::uint32_t method, std::string text, std::string* reply);

  void WriteArguments(Serialization::Serializer& serializer) const override;
  void ReadResults(Serialization::Deserializer& deserializer) override;

 private:
  const std::string text_;
  std::string* const reply_;  // may be null
};

// Counts what happens to it.
class TestHost final : public ServiceHost {
 public:
  ~TestHost() override;

  bool Authenticate(const std::string& user, const std::string& password,
                    const std::string& address) override;
  std::unique_ptr<Session> Open(unsigned int service_id, const Peer& peer,
                                std::vector<InterfaceVersion>& interfaces,
                                Common::Error& error) override;

  // Answers the waiting calls.
  void Release();
  void LetGo();
  // Waits until a counter has reached a value; false after a long time.
  bool WaitFor(const int& counter, int value);
  int Read(const int& counter);

  std::mutex mutex;
  std::condition_variable change;
  int opened = 0;
  int closed = 0;     // OnClosed
  int destroyed = 0;  // sessions
  int calls = 0;
  int waits = 0;  // of them, kWaiting
  int cancelled = 0;
  int logins = 0;  // that were to be checked
  Peer last_peer;
  // Until LetGo.
  bool holds_logins = false;
  bool holds_cancels = false;
  // Set before the server runs.
  Common::Error refusal;

 private:
  friend class TestSession;
  void Count(int& counter);

  std::vector<std::shared_ptr<ServerCall>> waiting_;
};

// How a call has ended.
class WaitingJobHandler final : public JobManagement::JobHandler {
 public:
  void OnSuccess() override { ++outcomes_; }
  void OnFailure(const Common::Error& error) override {
    ++outcomes_;
    error_ = error;
  }
  void OnFinished() override;
  void OnCancel() override { ++cancels_; }

  // In OnFinished, before the end is told.
  std::function<void()> at_end;

  // Waits for the end; after a long time, code 1.
  Common::Error Wait();
  bool HasEnded();
  // The calls were one outcome, one end, and nothing else.
  bool IsTold();

 private:
  std::mutex mutex_;
  std::condition_variable change_;
  Common::Error error_;
  int outcomes_ = 0;
  int ends_ = 0;
  int cancels_ = 0;
};

// The limits of tests, in which time passes faster.
Limits MakeQuickLimits();

// That of the error which is thrown, 0 for none.
template <class Action>
std::uint32_t CodeOf(Action&& action) {
  try {
    action();
    return 0;
  } catch (const Common::Error& error) {
    return error.GetCode();
  }
}

// To a service of this computer.
Common::Error ConnectLocally(Client& client, std::unique_ptr<Binding::AccessPoint>& access_point,
                             unsigned int service_id = kServiceId);

// A server on a local socket of a folder of its own, and a client of it.
class LocalPair {
 public:
  explicit LocalPair(const Limits& server_limits = {}, const Limits& client_limits = {});
  ~LocalPair();

  std::string GetSocket() const;
  // The code of the failure, if there is one.
  std::uint32_t TryToConnect(unsigned int service_id = kServiceId);
  std::unique_ptr<Binding::AccessPoint> Connect();

  TestSupport::TemporaryFolder folder;
  TestHost host;
  std::unique_ptr<Server> server;
  std::shared_ptr<Client> client;
};

// A call that a thread doesn't wait for. That it doesn't start is a failure of the test.
struct StartedCall {
  StartedCall(Binding::AccessPoint& access_point, Method method, const std::string& text = {},
              std::function<void()> at_end = {});

  Common::Error Wait() { return handler.Wait(); }

  WaitingJobHandler handler;
  std::string reply;
  std::unique_ptr<JobManagement::Job> job;
};

// Makes the job of a call.
std::unique_ptr<JobManagement::Job> MakeJob(Binding::AccessPoint& access_point, Method method,
                                            const std::string& text = {},
                                            std::string* reply = nullptr);
// Makes a call and waits for its end.
Common::Error Call(Binding::AccessPoint& access_point, Method method, const std::string& text = {},
                   std::string* reply = nullptr);

}  // namespace Platform::Ipc::Test
