// objprobe-service: serves object stores to objprobe.
//
// Exit status: 0 ended by a signal, or done; 1 failed; 2 wrong command line. Events and failures
// are told on standard error, one line each.

#include <signal.h>
#include <string.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/secret.h"
#include "core/common/text.h"
#include "enterprise/common/dml/local_post_office.h"
#include "enterprise/common/dml/tools/objprobe/arguments.h"
#include "platform/console/error_text.h"
#include "platform/ipc/server.h"
#include "services/objprobe_service/authenticator.h"
#include "services/objprobe_service/event_log.h"
#include "services/objprobe_service/password_prompt.h"
#include "services/objprobe_service/service_manager.h"
#include "services/objprobe_service/store_host.h"
#include "services/objprobe_service/user_file.h"
#include "services/objprobe_service/view_service.h"

namespace ObjProbeService {

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

// Requests are patterns and numbers: far less than the transport would take.
constexpr std::size_t kMaxRequestSize = std::size_t{4} << 20;
constexpr std::size_t kMaxCalls = 1'280;  // of a connection: all channels opened at once

constexpr struct {
  const char* keyword;
  unsigned int id;
} kServices[] = {
    {"HUB", ObjProbe::kHubServiceId},
    {"VLT", ObjProbe::kVaultServiceId},
    {"AGT", ObjProbe::kAgentServiceId},
    {"DML", ObjProbe::kDmlServiceId},
};

struct Settings {
  std::vector<std::string> stores;  // KEYWORD=STORE
  std::string address;
  std::string certificate;
  std::string key;
  std::string users;
  unsigned int version = 2;
  ServiceLimits limits;
  Platform::Ipc::Limits transport;
};

class UsageFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The number of a service's keyword; 0 when there is no such service.
unsigned int FindService(const std::string& keyword) {
  for (const auto& service : kServices) {
    if (keyword == service.keyword) return service.id;
  }
  return 0;
}

void Check(const Settings& settings) {
  if (settings.transport.max_request_size > settings.transport.max_input) {
    throw UsageFailure("--max-request-bytes is more than --max-input-bytes.");
  }
  if (settings.limits.max_reply_bytes > settings.transport.max_output) {
    throw UsageFailure("--max-reply-bytes is more than --max-output-bytes.");
  }
  if (settings.stores.empty())
    throw UsageFailure("--serve is required: there is nothing to serve.");
  const bool has_all =
      !settings.certificate.empty() && !settings.key.empty() && !settings.users.empty();
  const bool has_any =
      !settings.certificate.empty() || !settings.key.empty() || !settings.users.empty();
  if (settings.address.empty() ? has_any : !has_all) {
    throw UsageFailure("--listen, --cert, --key and --users go together.");
  }
}

// The signals that end the service, kept from all its threads but the one that waits for them.
class EndingSignals {
 public:
  EndingSignals() {
    ::sigemptyset(&signals_);
    ::sigaddset(&signals_, SIGINT);
    ::sigaddset(&signals_, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
  }
  void Wait() {
    int number = 0;
    while (::sigwait(&signals_, &number) != 0) {
    }
    LogEvent(std::string("ending: ").append(::strsignal(number)));
    // A second one ends the program at once.
    ::pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
  }

 private:
  sigset_t signals_;
};

void Serve(const Settings& settings) {
  Check(settings);
  EndingSignals signals;
  std::unique_ptr<Authenticator> authenticator;
  if (!settings.users.empty()) {
    authenticator = std::make_unique<Authenticator>(settings.users, LogEvent);
  }
  StoreHost host(authenticator.get(), LogEvent);
  std::set<unsigned int> ids;
  for (const std::string& text : settings.stores) {
    const std::size_t equals = std::min(text.find('='), text.size());
    const std::string keyword = text.substr(0, equals);
    const unsigned int id = FindService(keyword);
    if (id == 0 || equals == text.size()) {
      throw UsageFailure("--serve " + text +
                         " is not HUB=STORE, VLT=STORE, AGT=STORE or DML=STORE.");
    }
    if (!ids.insert(id).second) throw UsageFailure("--serve " + keyword + " is given twice.");
    auto office = Dml::CreatePostOffice(Common::Utf8ToString(text.c_str() + equals + 1));
    host.Add(id, keyword,
             std::make_unique<ViewService>(std::move(office), settings.limits, settings.version,
                                           LogEvent));
  }
  // Goes before the host, and with it all sessions.
  const auto server = Platform::Ipc::Server::Create(host, settings.transport);
  for (const unsigned int id : ids) server->ListenLocal(id);
  if (!settings.address.empty()) {
    const std::uint16_t port =
        server->ListenTls(settings.address, settings.certificate, settings.key);
    LogEvent("listening on " + settings.address + ", port " + std::to_string(port));
  }
  LogEvent("ready");
  NotifyServiceManager("READY=1");
  signals.Wait();
  NotifyServiceManager("STOPPING=1");
  server->Stop();
}

void SetPasswordOf(const std::string& file, const std::string& user) {
  if (!IsUserName(user)) throw UsageFailure("\"" + user + "\" can't be the name of a user.");
  Common::Secret password;
  AskForPassword(user, password);
  SetPassword(file, user, password.Get());
}

int Fail(const std::string& text, int status = kFailed) {
  LogEvent(text);
  return status;
}

int Run(int argc, char** argv) {
  Settings settings;
  settings.transport.max_request_size = kMaxRequestSize;
  settings.transport.max_calls = kMaxCalls;
  CLI::App app(
      "Serves object stores to objprobe: on local sockets to its own user and root, and with\n"
      "--listen over TLS to its users.",
      "objprobe-service");
  app.add_option("--serve", settings.stores,
                 "KEYWORD=STORE: serve a store as HUB, VLT, AGT or DML; repeat it for others")
      ->allow_extra_args(false);
  app.add_option("--listen", settings.address,
                 "HOST:PORT or [HOST]:PORT to serve other computers, port 0 for any");
  app.add_option("--cert", settings.certificate, "Certificate chain, a PEM file");
  app.add_option("--key", settings.key, "Its private key, a PEM file");
  app.add_option("--users", settings.users, "Users and password hashes, as \"passwd\" writes them");
  app.add_option("--interface-version", settings.version,
                 "2: views and transmissions; 1: views alone")
      ->check(CLI::IsMember({1, 2}))
      ->capture_default_str();
  const auto add_limit = [&](const char* name, std::size_t& limit, const char* description) {
    app.add_option(name, limit, description)
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 40))
        ->capture_default_str()
        ->group("Limits for a client");
  };
  add_limit("--max-queue-records", settings.limits.max_queue_records,
            "Updates that wait in a transmission");
  add_limit("--max-queue-bytes", settings.limits.max_queue_bytes, "Memory that they take");
  add_limit("--max-views", settings.limits.max_views, "Views and channels of a connection");
  add_limit("--max-view-bytes", settings.limits.max_view_bytes, "Bytes of the requests for them");
  add_limit("--max-view-objects", settings.limits.max_view_objects,
            "Objects that they remember, where the number of objects is limited");
  add_limit("--max-reports", settings.limits.max_reports,
            "Calls of a connection that read the store at a time");
  add_limit("--max-reply-bytes", settings.limits.max_reply_bytes, "Bytes of a reply");
  add_limit("--max-request-bytes", settings.transport.max_request_size, "Bytes of a request");
  add_limit("--max-input-bytes", settings.transport.max_input, "Bytes of open requests");
  add_limit("--max-output-bytes", settings.transport.max_output,
            "Bytes that wait to be taken by a client");
  add_limit("--max-calls", settings.transport.max_calls, "Open calls of a connection");
  add_limit("--max-connections", settings.transport.max_connections, "Connections altogether");

  std::string file;
  std::string user;
  CLI::App* const set_password = app.add_subcommand(
      "passwd", "Give a user a password: asked for on a terminal, else the first line of input");
  set_password->add_option("FILE", file, "File for --users; made if it is missing")->required();
  set_password->add_option("USER", user, "Name of the user")->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 && std::cout.flush() ? 0 : kWrongUsage;
  }
  // Other replies aren't held to that limit, but by what the records of a pull may be.
  settings.transport.max_reply_size =
      std::max(settings.transport.max_reply_size, settings.limits.max_reply_bytes);
  try {
    if (set_password->parsed()) {
      SetPasswordOf(file, user);
    } else {
      Serve(settings);
    }
    return 0;
  } catch (const Common::Error& error) {
    return Fail(Platform::Console::DescribeError(error));
  } catch (const UsageFailure& failure) {
    return Fail(failure.what(), kWrongUsage);
  } catch (const std::bad_alloc&) {
    return Fail("Not enough memory to complete the operation.");
  } catch (const std::exception& failure) {
    return Fail(failure.what());
  }
}

}  // namespace

}  // namespace ObjProbeService

int main(int argc, char** argv) {
  return ObjProbeService::Run(argc, argv);
}
