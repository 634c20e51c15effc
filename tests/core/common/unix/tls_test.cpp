#include "core/common/unix/tls.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using Common::Tls;

TEST(Tls, KeepsAValueForEachThreadAndDestroysItAtTheEnd) {
  static int destroyed = 0;
  const std::uint32_t slot = Tls::Allocate([](void* value) { ++*static_cast<int*>(value); });
  ASSERT_NE(slot, Tls::OUT_OF_INDEXES);
  int own = 0;
  EXPECT_EQ(Tls::Get(slot), nullptr);
  EXPECT_TRUE(Tls::Set(slot, &own));
  std::thread([slot] {
    EXPECT_EQ(Tls::Get(slot), nullptr);
    EXPECT_TRUE(Tls::Set(slot, &destroyed));
  }).join();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(Tls::Get(slot), &own);
  EXPECT_TRUE(Tls::Free(slot));
  EXPECT_EQ(own, 0);
  EXPECT_FALSE(Tls::Free(slot));
  EXPECT_FALSE(Tls::Set(slot, &own));
}

}  // namespace
