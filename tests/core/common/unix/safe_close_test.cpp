#include "core/common/unix/safe_close.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "tests/core/common/unix/child.h"

namespace {

TEST(SafeClose, MisuseEndsByTheModeOfTheEnvironment) {
  const struct {
    std::vector<std::string> environment;
    int status;
  } cases[] = {
      {{}, 1000 + SIGABRT},
      {{"VELORIN_SAFE_CLOSE=xabortx"}, 1000 + SIGABRT},
      {{"VELORIN_SAFE_CLOSE=abort,break"}, 1000 + SIGTRAP},
      {{"VELORIN_SAFE_CLOSE=quiet"}, 0},
      {{"VELORIN_SAFE_CLOSE="}, 0},
  };
  for (const auto& row : cases) {
    TestSupport::ProgramOptions options;
    options.environment = row.environment;
    const auto twice = RunChild({"close-twice"}, options);
    const auto full = RunChild({"close-full"}, options);
    EXPECT_EQ(twice.status, row.status) << &row - cases;
    EXPECT_EQ(full.status, row.status) << &row - cases;
    if (row.status == 0) {
      EXPECT_EQ(twice.out, "0\n-1 1\nwent on\n");
      EXPECT_EQ(full.out, "-1 1\nwent on\n");
    }
  }
}

}  // namespace
