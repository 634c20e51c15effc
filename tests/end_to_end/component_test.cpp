#include <gtest/gtest.h>

#include <string>

#include "tests/support/run_program.h"

namespace EndToEnd {
namespace {

// Nothing in objprobe calls the descriptions of interfaces by name: they enter themselves before
// main, and a linker that takes only what is called would leave them out.
TEST(ObjprobeProgram, HoldsTheInterfacesThatRegisterThemselves) {
  const TestSupport::ProgramResult result = TestSupport::RunProgram(
      OBJPROBE, {"objprobe"},
      TestSupport::ProgramOptions{
          .environment = {std::string("LD_PRELOAD=").append(COMPONENT_PROBE),
                          // The runtime needn't be the first library.
                          "ASAN_OPTIONS=verify_asan_link_order=0"}});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "271 2\n274 1\n");
}

}  // namespace
}  // namespace EndToEnd
