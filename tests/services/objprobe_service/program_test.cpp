#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/common/unix/safe_close.h"
#include "tests/support/run_program.h"
#include "tests/support/running_program.h"
#include "tests/support/temporary_folder.h"

// objprobe-service as a program.

namespace ObjProbeService {

namespace {

using TestSupport::ProgramResult;
using TestSupport::RunProgram;

// Gets what the program tells its service manager.
class ServiceManager : public Common::NonCopyable {
 public:
  explicit ServiceManager(const std::string& path)
      : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const timeval patience{60, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~ServiceManager() { Common::SafeClose(socket_); }

  std::string Receive() {
    char text[64];
    const ssize_t size = ::recv(socket_, text, sizeof text, 0);
    return size < 0 ? "nothing" : std::string(text, static_cast<std::size_t>(size));
  }

 private:
  const int socket_;
};

class ServiceProgram : public testing::Test {
 protected:
  static ProgramResult Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "objprobe-service");
    return RunProgram(OBJPROBE_SERVICE, arguments);
  }
  // With that text on standard input.
  static ProgramResult SetPassword(const std::string& input, const std::string& file,
                                   const std::string& user) {
    return RunProgram("/bin/sh", {"sh", "-c", "printf '%s' \"$1\" | \"$2\" passwd \"$3\" \"$4\"",
                                  "sh", input, OBJPROBE_SERVICE, file, user});
  }
  std::string ReadUsers() const {
    std::ostringstream text;
    text << std::ifstream(folder_ / "users").rdbuf();
    return text.str();
  }

  const TestSupport::TemporaryFolder folder_;
};

TEST_F(ServiceProgram, RefusesWrongCommandLines) {
  const std::string store = folder_ / "objects.db";
  RunProgram(OBJPROBE_STORE, {"objprobe-store", "create", store});
  const std::string serve = std::string("HUB=").append(store);
  const std::vector<std::string> wrong[] = {
      {},
      {"--serve", store},
      {"--serve", std::string("hub=").append(store)},
      {"--serve", serve, "--serve", serve},
      {"--serve", serve, "--listen", "localhost:0"},
      {"--serve", serve, "--users", store},
      {"--serve", serve, "--interface-version", "3"},
      {"--serve", serve, "--max-views", "0"},
      {"--serve", serve, "--max-reply-bytes", "2000000000"},
      {"--serve", serve, "--max-request-bytes", "300000000"},
      {"--serve", serve, "more"},
      {"passwd", folder_ / "users"},
      {"passwd", folder_ / "users", "a:b"},
  };
  for (const auto& arguments : wrong) {
    const ProgramResult result = Run(arguments);
    EXPECT_EQ(result.status, 2) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err, "");
  }
  EXPECT_EQ(Run({"--help"}).status, 0);
  const ProgramResult missing = Run({"--serve", std::string("HUB=").append(folder_ / "none.db")});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("none.db: The specified file does not exist."), std::string::npos)
      << missing.err;
}

TEST_F(ServiceProgram, TakesAPasswordFromItsInput) {
  const std::string file = folder_ / "users";
  EXPECT_EQ(SetPassword("secret\nmore\n", file, "anna").status, 0);
  EXPECT_EQ(SetPassword("another", file, "bob").status, 0);
  const std::string text = ReadUsers();
  EXPECT_TRUE(text.starts_with("anna:$y$")) << text;
  EXPECT_NE(text.find("\nbob:$y$"), std::string::npos) << text;
  EXPECT_EQ(text.find("secret"), std::string::npos);
  for (const std::string& input : {std::string(), std::string("\n"), std::string(600, 'x')}) {
    const ProgramResult result = SetPassword(input, file, "anna");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(ReadUsers(), text);
  }
}

TEST_F(ServiceProgram, ServesUntilItIsToldToEnd) {
  const std::string store = folder_ / "objects.db";
  const std::string ipc = folder_ / "ipc";
  std::ofstream(folder_ / "object") << ".Composite().Trait(\"PrimaryKey\").Guid("
                                       "00000001-0000-0000-0000-000000000000).End()"
                                       ".Trait(\"Is\").String(\"Thing\").End().End()";
  ASSERT_EQ(RunProgram(OBJPROBE_STORE, {"objprobe-store", "create", store}).status, 0);
  ASSERT_EQ(RunProgram(OBJPROBE_STORE, {"objprobe-store", "put", store, folder_ / "object"}).status,
            0);
  for (const int end : {SIGTERM, SIGINT}) {
    std::filesystem::remove(folder_ / "manager");
    ServiceManager manager(folder_ / "manager");
    TestSupport::RunningProgram service(
        OBJPROBE_SERVICE, {"objprobe-service", "--serve", "VLT=" + store},
        {"NOTIFY_SOCKET=" + (folder_ / "manager"), "VELORIN_IPC_DIR=" + ipc});
    ASSERT_EQ(manager.Receive(), "READY=1") << service.GetErrors();
    const ProgramResult report =
        RunProgram(OBJPROBE, {"objprobe", "localhost", "", "", "VLT", "Thing", "report"},
                   TestSupport::ProgramOptions{.environment = {"VELORIN_IPC_DIR=" + ipc}});
    EXPECT_EQ(report.status, 0);
    EXPECT_NE(report.out.find("<object id=\"00000001-0000-0000-0000-000000000000\">"),
              std::string::npos)
        << report.out;
    // The client is gone, but the service may not know yet.
    EXPECT_TRUE(TestSupport::Await(
        [&] { return service.GetErrors().find("disconnected") != std::string::npos; }));
    service.Signal(end);
    EXPECT_EQ(manager.Receive(), "STOPPING=1");
    EXPECT_EQ(service.Wait(), 0);
    const std::string user = std::to_string(::geteuid());
    EXPECT_EQ(service.GetErrors(),
              std::string("objprobe-service: ready\nobjprobe-service: VLT: local user ")
                  .append(user)
                  .append(": connected\nobjprobe-service: VLT: local user ")
                  .append(user)
                  .append(": disconnected\nobjprobe-service: ending: ")
                  .append(::strsignal(end))
                  .append("\n"));
    EXPECT_TRUE(!std::filesystem::exists(ipc) ||
                !std::filesystem::exists(ipc + "/service-34.sock"));
  }
}

}  // namespace

}  // namespace ObjProbeService
