#include "enterprise/common/ipc/client/lib/client.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/text.h"

// An IPC library that writes down what happens to it.

namespace {

std::string events;
Common::Error init_error, browser_error, connect_error;
const void* place = nullptr;  // of the access point, as the browser was asked for

void Reset() {
  events.clear();
  init_error = browser_error = connect_error = Common::Error();
  place = nullptr;
}

class LoggedBrowser final : public Binding::Browser {
 public:
  ~LoggedBrowser() override { events += "~browser "; }
  Common::Error Connect(unsigned int service_id, unsigned int reserved,
                        std::unique_ptr<Binding::AccessPoint>& access_point,
                        const Binding::WordPair& pair) override {
    EXPECT_EQ(place, &access_point);
    EXPECT_EQ(reserved + pair.first + pair.second, 0u);
    events += "connect " + std::to_string(service_id) + " ";
    return connect_error;
  }
};

}  // namespace

void IPCClient_Init(unsigned int reserved, Common::Error& error) {
  EXPECT_EQ(reserved, 0u);
  EXPECT_FALSE(error.IsFailure());
  events += "init ";
  error = init_error;
}

void IPCClient_Deinit(Common::Error& error) {
  EXPECT_FALSE(error.IsFailure());
  events += "deinit ";
  error = Common::Error(0x99, Common::LineTag{});
}

std::unique_ptr<Binding::Binder> IPCClient_CreateBinder() {
  return nullptr;
}

std::unique_ptr<Binding::Browser> IPCClient_GetLocalBrowser(
    Common::Error& error, unsigned int reserved,
    std::unique_ptr<Binding::AccessPoint>& access_point, const Binding::WordPair& pair) {
  EXPECT_FALSE(error.IsFailure());
  EXPECT_EQ(reserved + pair.first + pair.second, 0u);
  place = &access_point;
  error = browser_error;
  // Also with an error it may give one.
  return std::make_unique<LoggedBrowser>();
}

namespace Binding {
namespace {

TEST(Client, RunsForAScopeAndKeepsTheOutcomeOfItsStart) {
  for (const std::uint32_t code : {0u, 0xAD0001u}) {
    Reset();
    init_error = Common::Error(code, Common::LineTag{});
    {
      const ScopedIPCClient client;
      EXPECT_EQ(client.GetResult().GetCode(), code);
      EXPECT_EQ(events, "init ");
    }
    EXPECT_EQ(events, "init deinit ");
  }
}

TEST(Client, ConnectsThroughTheLocalBrowserAndReleasesIt) {
  Reset();
  std::unique_ptr<AccessPoint> point;
  EXPECT_EQ(ConnectLocal(46, 0, point, WordPair()).GetRecord(), nullptr);
  EXPECT_EQ(events, "connect 46 ~browser ");
  connect_error = Common::Error(0x55, "down", Common::LineTag{});
  const Common::Error refused = ConnectLocal(46, 0, point, WordPair());
  EXPECT_EQ(refused.GetRecord(), connect_error.GetRecord());
  events.clear();
  browser_error = Common::Error(0x56, "no library", Common::LineTag{});
  const Common::Error error = ConnectLocal(46, 0, point, WordPair());
  EXPECT_EQ(events, "~browser ");
  EXPECT_EQ(error.GetCode(), 0xAD001Fu);
  EXPECT_EQ(TestSupport::Utf8(error.GetMessage()),
            "Failed to obtain the local service browser during local connection.");
  EXPECT_STREQ(error.GetLineTag().function, "ConnectLocalImpl");
  EXPECT_EQ(error.GetLineTag().line, 38u);
  EXPECT_EQ(error.GetNextError().GetRecord(), browser_error.GetRecord());
}

}  // namespace
}  // namespace Binding
