#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/common/non_copyable.h"
#include "tests/platform/ipc/certificates.h"
#include "tests/support/running_program.h"
#include "tests/support/temporary_folder.h"

// What the tests of the programs among themselves share: the programs, a folder in which they meet,
// and what they have printed.

namespace EndToEnd {

using TestSupport::Await;
using TestSupport::kPatience;
using TestSupport::ProgramResult;
using TestSupport::RunningProgram;

using Words = std::vector<std::string>;

// The programs are slower then, and larger.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsSanitized = true;
#else
inline constexpr bool kIsSanitized = false;
#endif

inline constexpr char kUser[] = "remote-user-name";
inline constexpr char kPassword[] = "pass-word-of-the-test";

// How a client comes to a service, and what the service speaks.
struct Way {
  bool is_remote = false;
  int version = 2;
};
std::string Describe(const Way& way);

// An objprobe-service that is ready.
class Service : public Common::NonCopyable {
 public:
  Service(std::unique_ptr<RunningProgram> program, std::uint16_t port)
      : program_(std::move(program)), port_(port) {}

  RunningProgram& GetProgram() { return *program_; }
  std::uint16_t GetPort() const { return port_; }  // of 127.0.0.1, 0 when it isn't remote
  // How often a text is in the log.
  int CountInLog(const std::string& text) const;

 private:
  const std::unique_ptr<RunningProgram> program_;
  const std::uint16_t port_;
};

// A folder with stores, the runtime directory of services, certificates and users.
class Stage : public Common::NonCopyable {
 public:
  Stage();

  std::string operator/(const std::string& name) const { return folder_ / name; }
  std::string GetRuntimeDirectory() const { return folder_ / "ipc"; }

  // objprobe-store; what it prints. Its failure is one of the test.
  std::string Store(Words words) const;
  // Puts the object of a unit text.
  void Put(const std::string& store, const std::string& text) const;

  // Serves the stores, each as "HUB=PATH".
  std::unique_ptr<Service> Serve(const Words& stores, const Way& way, const Words& more = {}) const;
  // The same with another certificate.
  std::unique_ptr<Service> ServeAs(const Platform::Ipc::Test::Certificate& certificate,
                                   const Words& stores, const Way& way,
                                   const Words& more = {}) const;

  // What an objprobe needs to come to a service: host, user and password.
  Words Address(const Service& service, const Way& way) const;
  // objprobe in the end, and while it runs.
  ProgramResult Run(const Words& address, const Words& query) const;
  std::unique_ptr<RunningProgram> Start(const Words& address, const Words& query) const;
  // What the store itself says to the query.
  std::string ReportOf(const std::string& store, Words query) const;

  const Platform::Ipc::Test::Certificate& GetAuthority() const { return authority_; }
  Words GetEnvironment() const;

 private:
  const TestSupport::TemporaryFolder folder_;
  const Platform::Ipc::Test::Certificate authority_;
  const Platform::Ipc::Test::Certificate certificate_;
};

// A process as the system shows it.
int CountDescriptors(pid_t process, const std::string& kind = {});  // "socket:"
// What a service keeps for a store from the first listen on: one to be woken by and one that tells
// of the store's files.
inline constexpr int kFollowerDescriptors = 2;
long GetResidentKilobytes(pid_t process);
long CountThreads(pid_t process);
inline bool IsConnected(pid_t process) {
  return CountDescriptors(process, "socket:") != 0;
}

// What objprobe has printed for one object, without the time.
struct Event {
  std::string kind;  // "object", "created", "updated", "deleted"
  std::string id;
  std::string body;  // the lines between the first and the last one
};

// Takes the whole events off the front of `text`.
std::vector<Event> TakeEvents(std::string& text);
// "KIND ID\n" and the lines of each.
std::string Join(const std::vector<Event>& events);

}  // namespace EndToEnd
