#include "core/common/unix/safe_close.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "tests/core/common/unix/child.h"

namespace {

TEST(SafeClose, MisuseEndsByTheModeOfTheEnvironment) {
  const struct {
    const char* mode;  // null: unset
    int status;
  } cases[] = {
      {nullptr, -SIGABRT},
      {"abort", -SIGABRT},
      {"xabortx", -SIGABRT},
      {"break", -SIGTRAP},
      {"abort,break", -SIGTRAP},
      {"quiet", 0},
      {"", 0},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.mode != nullptr ? row.mode : "unset");
    ChildOptions options;
    if (row.mode != nullptr) {
      options.environment = {std::string("VELORIN_SAFE_CLOSE=") + row.mode};
    }
    const ChildResult twice = RunChild({"close-twice"}, options);
    EXPECT_EQ(twice.status, row.status);
    const ChildResult full = RunChild({"close-full"}, options);
    EXPECT_EQ(full.status, row.status);
    if (row.status == 0) {
      EXPECT_EQ(twice.out, "0\n-1 1\nwent on\n");
      EXPECT_EQ(full.out, "-1 1\nwent on\n");
    }
  }
}

}  // namespace
