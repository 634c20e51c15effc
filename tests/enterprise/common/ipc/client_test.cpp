// What starts the libraries, each behind its port.

#include "enterprise/common/ipc/client/lib/client.h"

#include <gtest/gtest.h>

#include "enterprise/common/security/client/init.h"
#include "tests/support/client_libraries.h"
#include "tests/support/text.h"

namespace Binding {
namespace {

using TestSupport::client_libraries;

TEST(Client, ConnectsThroughTheLocalBrowserAndReleasesIt) {
  client_libraries = {};
  std::unique_ptr<AccessPoint> point;
  EXPECT_EQ(ConnectLocal(46, 0, point, WordPair()).GetRecord(), nullptr);
  EXPECT_EQ(client_libraries.events, "local connect(46) ~browser ");
  client_libraries.events.clear();
  client_libraries.browser_error = Common::Error(0x56, "no library", Common::LineTag{});
  const Common::Error error = ConnectLocal(46, 0, point, WordPair());
  EXPECT_EQ(client_libraries.events, "local ~browser ");
  EXPECT_EQ(error.GetCode(), 0xAD001Fu);
  EXPECT_EQ(TestSupport::Utf8(error.GetMessage()),
            "Failed to obtain the local service browser during local connection.");
  EXPECT_STREQ(error.GetLineTag().function, "ConnectLocalImpl");
  EXPECT_EQ(error.GetNextError().GetRecord(), client_libraries.browser_error.GetRecord());
}

}  // namespace
}  // namespace Binding

namespace Security {
namespace {

using TestSupport::client_libraries;

TEST(SecurityClient, FailsWithTheLastErrorOfTheLibrary) {
  client_libraries = {};
  const Common::LineTag tag{0x123456789, "file", "function", 3};
  EXPECT_EQ(Initialize(tag).GetRecord(), nullptr);
  EXPECT_EQ(client_libraries.security_started_from, tag.location);
  client_libraries.security_status = 2;
  const Common::Error none = Initialize(tag);
  EXPECT_EQ(none.GetCode(), 0x2740004u);
  EXPECT_EQ(TestSupport::Utf8(none.GetMessage()),
            "An invalid operation result is returned from security core.");
  EXPECT_STREQ(none.GetLineTag().function, "Initialize");
  EXPECT_EQ(none.GetLineTag().line, 34u);
  // Code 0x2740009, location 5, message "x".
  client_libraries.security_error = {1, 9, 0, 0x74, 2, 5, 0, 0, 0, 0, 0, 0, 0, 'x', 0, 0};
  const Common::Error error = Initialize(tag);
  EXPECT_EQ(error.GetCode(), 0x2740009u);
  EXPECT_EQ(error.GetLineTag().location, 5u);
  EXPECT_EQ(error.GetNextError().GetRecord(), nullptr);
  client_libraries.security_error.resize(10);
  EXPECT_EQ(Initialize(tag).GetRecord(), nullptr);
}

}  // namespace
}  // namespace Security
