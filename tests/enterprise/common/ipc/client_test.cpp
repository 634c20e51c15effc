#include "enterprise/common/ipc/client/lib/client.h"

#include <gtest/gtest.h>

#include "tests/support/client_libraries.h"
#include "tests/support/text.h"

namespace Binding {
namespace {

using TestSupport::client_libraries;

TEST(Client, RunsForAScopeAndKeepsTheOutcomeOfItsStart) {
  for (const std::uint32_t code : {0u, 0xAD0001u}) {
    client_libraries = {};
    client_libraries.init_error = Common::Error(code, Common::LineTag{});
    {
      const ScopedIPCClient client;
      EXPECT_EQ(client.GetResult().GetCode(), code);
      EXPECT_EQ(client_libraries.events, "init ");
    }
    EXPECT_EQ(client_libraries.events, "init deinit ");
  }
}

TEST(Client, ConnectsThroughTheLocalBrowserAndReleasesIt) {
  client_libraries = {};
  std::unique_ptr<AccessPoint> point;
  EXPECT_EQ(ConnectLocal(46, 0, point, WordPair()).GetRecord(), nullptr);
  EXPECT_EQ(client_libraries.events, "local connect(46) ~browser ");
  client_libraries.connect_error = Common::Error(0x55, "down", Common::LineTag{});
  const Common::Error refused = ConnectLocal(46, 0, point, WordPair());
  EXPECT_EQ(refused.GetRecord(), client_libraries.connect_error.GetRecord());
  EXPECT_EQ(client_libraries.events, "local connect(46) ~browser local connect(46) ~browser ");
  client_libraries.events.clear();
  client_libraries.browser_error = Common::Error(0x56, "no library", Common::LineTag{});
  const Common::Error error = ConnectLocal(46, 0, point, WordPair());
  EXPECT_EQ(client_libraries.events, "local ~browser ");
  EXPECT_EQ(error.GetCode(), 0xAD001Fu);
  EXPECT_EQ(TestSupport::Utf8(error.GetMessage()),
            "Failed to obtain the local service browser during local connection.");
  EXPECT_STREQ(error.GetLineTag().function, "ConnectLocalImpl");
  EXPECT_EQ(error.GetLineTag().line, 38u);
  EXPECT_EQ(error.GetNextError().GetRecord(), client_libraries.browser_error.GetRecord());
}

TEST(Client, HandsOverTheBinderOfTheLibrary) {
  client_libraries = {};
  const std::unique_ptr<Binder> binder = CreateBinder();
  EXPECT_NE(binder, nullptr);
  EXPECT_EQ(client_libraries.events, "binder ");
}

}  // namespace
}  // namespace Binding
