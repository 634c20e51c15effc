#include "enterprise/common/dml/tools/objprobe/service_connection.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "core/common/error.h"
#include "enterprise/common/dml/client/remoting.h"
#include "tests/enterprise/common/dml/scripted_post_office.h"
#include "tests/support/client_libraries.h"
#include "tests/support/text.h"

// The post offices here are a stand-in's: it may give none.

namespace {

const Binding::AccessPoint* provided = nullptr;  // for the last post office
std::unique_ptr<Dml::PostOffice> next_office;

}  // namespace

std::unique_ptr<Dml::PostOffice> Dml::Client::CreateRemoteViewProvider(
    std::shared_ptr<Binding::AccessPoint> access_point) {
  provided = access_point.get();
  return std::move(next_office);
}

namespace ObjProbe {
namespace {

using TestSupport::client_libraries;

void Reset() {
  client_libraries = {};
  provided = nullptr;
  next_office.reset();
}

// As they come from the command line.
std::unique_ptr<Dml::PostOffice> Connect(const char* host, const char* service) {
  Arguments arguments(0, nullptr);
  arguments.hostname = host;
  arguments.user = "\xC3\xA4";
  arguments.password = "p w";
  arguments.service = service;
  return CreateRemotePostOffice(arguments);
}

TEST(ServiceConnection, GoesTheWayThatHostAndServiceSay) {
  const struct {
    const char* host;
    const char* service;
    const char* events;
  } cases[] = {
      {"h", "DML", "local connect(46) ~browser "},
      {"localhost", "HUB", "local connect(33) ~browser "},
      {"localhost", "RACK", "local connect(45) ~browser "},
      {"LOCALHOST", "HUB", "binder bind(LOCALHOST,\xC3\xA4,p w) connect(33) ~browser ~binder "},
      {"localhost:7", "VLT", "binder bind(localhost:7,\xC3\xA4,p w) connect(34) ~browser ~binder "},
      {"", "AGT", "binder bind(,\xC3\xA4,p w) connect(35) ~browser ~binder "},
      {"h", "other", "binder bind(h,\xC3\xA4,p w) connect(33) ~browser ~binder "},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.events);
    Reset();
    next_office = std::make_unique<Dml::ScriptedPostOffice>();
    const Dml::PostOffice* const office = next_office.get();
    EXPECT_EQ(Connect(expected.host, expected.service).get(), office);
    EXPECT_NE(provided, nullptr);
    EXPECT_EQ(client_libraries.events, std::string(expected.events) + "~point ");
  }
}

TEST(ServiceConnection, FailsWithTheStepAndItsReason) {
  const Common::Error reason(0xAD0104, "down", Common::LineTag{});
  const struct {
    const char* host;
    Common::Error TestSupport::ClientLibraries::*failing;  // none: there is no post office
    unsigned int code;
    const char* message;
    const char* function;
    const char* events;
  } cases[] = {
      {"h", &TestSupport::ClientLibraries::bind_error, 3, "Failed to bind to host.",
       "CreateAccessPoint", "binder bind(h,\xC3\xA4,p w) ~binder "},
      {"h", &TestSupport::ClientLibraries::connect_error, 3, "Failed to connect to VLT",
       "CreateAccessPoint", "binder bind(h,\xC3\xA4,p w) connect(34) ~browser ~binder "},
      {"localhost", &TestSupport::ClientLibraries::connect_error, 3,
       "Failed to create local connection with VLT", "CreateAccessPoint",
       "local connect(34) ~browser "},
      // The chain keeps the way to it.
      {"localhost", &TestSupport::ClientLibraries::browser_error, 3,
       "Failed to create local connection with VLT", "CreateAccessPoint", "local ~browser "},
      {"h", nullptr, 4, "Failed to create remote post office.", "CreateRemotePostOffice",
       "binder bind(h,\xC3\xA4,p w) connect(34) ~browser ~binder ~point "},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.message);
    Reset();
    if (expected.failing != nullptr) client_libraries.*expected.failing = reason;
    try {
      Connect(expected.host, "VLT");
      ADD_FAILURE() << "connected";
    } catch (const Common::Error& error) {
      EXPECT_EQ(error.GetCode(), expected.code);
      EXPECT_EQ(TestSupport::Utf8(error.GetMessage()), expected.message);
      EXPECT_STREQ(error.GetLineTag().function, expected.function);
      Common::Error last = error.GetNextError();
      if (last.GetCode() == 0xAD001F) last = last.GetNextError();
      EXPECT_EQ(last.GetRecord(), expected.failing != nullptr ? reason.GetRecord() : nullptr);
    }
    EXPECT_EQ(client_libraries.events, expected.events);
  }
}

}  // namespace
}  // namespace ObjProbe
