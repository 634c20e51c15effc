#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "enterprise/common/security/client/init.h"
#include "enterprise/common/security/client/security_library.h"
#include "tests/support/text.h"

// A security library.

namespace {

std::uint32_t status = 0;
std::uint64_t started_from = 0;
std::vector<unsigned char> last_error;

void Reset() {
  status = 0;
  started_from = 0;
  last_error.clear();
}

}  // namespace

std::uint32_t Security_Initialize(std::uint64_t location, std::uint32_t reserved1,
                                  std::uint32_t reserved2) {
  EXPECT_EQ(reserved1 + reserved2, 0u);
  started_from = location;
  return status;
}

void Security_GetLastError(unsigned char** data, std::uint32_t* size) {
  EXPECT_EQ(*data, nullptr);
  EXPECT_EQ(*size, 0u);
  if (last_error.empty()) return;
  *data = new unsigned char[last_error.size()];
  std::copy(last_error.begin(), last_error.end(), *data);
  *size = static_cast<std::uint32_t>(last_error.size());
}

namespace Security {
namespace {

TEST(SecurityClient, FailsWithTheLastErrorOfTheLibrary) {
  Reset();
  const Common::LineTag tag{0x123456789, "file", "function", 3};
  EXPECT_EQ(Initialize(tag).GetRecord(), nullptr);
  EXPECT_EQ(started_from, tag.location);
  status = 2;
  const Common::Error none = Initialize(tag);
  EXPECT_EQ(none.GetCode(), 0x2740004u);
  EXPECT_EQ(TestSupport::Utf8(none.GetMessage()),
            "An invalid operation result is returned from security core.");
  EXPECT_STREQ(none.GetLineTag().function, "Initialize");
  EXPECT_EQ(none.GetLineTag().line, 34u);
  // Code 0x2740009, location 5, message "x".
  last_error = {1, 9, 0, 0x74, 2, 5, 0, 0, 0, 0, 0, 0, 0, 'x', 0, 0};
  const Common::Error error = Initialize(tag);
  EXPECT_EQ(error.GetCode(), 0x2740009u);
  EXPECT_EQ(error.GetLineTag().location, 5u);
  EXPECT_EQ(error.GetNextError().GetRecord(), nullptr);
  last_error.resize(10);
  EXPECT_EQ(Initialize(tag).GetRecord(), nullptr);
}

}  // namespace
}  // namespace Security
