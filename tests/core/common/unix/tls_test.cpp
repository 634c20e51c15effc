#include "core/common/unix/tls.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

using Common::Tls;

TEST(Tls, KeepsAValueForEachThreadAndDestroysItAtTheEnd) {
  static int destroyed;
  destroyed = 0;
  const std::uint32_t slot = Tls::Allocate([](void* value) { ++*static_cast<int*>(value); });
  ASSERT_NE(slot, Tls::OUT_OF_INDEXES);
  int own = 0;
  EXPECT_EQ(Tls::Get(slot), nullptr);
  EXPECT_TRUE(Tls::Set(slot, &own));
  std::thread([slot] {
    EXPECT_EQ(Tls::Get(slot), nullptr);
    EXPECT_TRUE(Tls::Set(slot, &destroyed));
    EXPECT_EQ(Tls::Get(slot), &destroyed);
  }).join();
  std::thread([] {}).join();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(Tls::Get(slot), &own);
  EXPECT_TRUE(Tls::Free(slot));
  EXPECT_EQ(own, 0);
  EXPECT_FALSE(Tls::Free(slot));
  EXPECT_FALSE(Tls::Set(slot, &own));
}

TEST(Tls, TellsWhenThereAreNoMoreSlots) {
  std::vector<std::uint32_t> slots;
  for (;;) {
    const std::uint32_t slot = Tls::Allocate(nullptr);
    if (slot == Tls::OUT_OF_INDEXES) break;
    slots.push_back(slot);
    ASSERT_LT(slots.size(), 1000000u);
  }
  EXPECT_FALSE(slots.empty());
  for (const std::uint32_t slot : slots) EXPECT_TRUE(Tls::Free(slot));
  const std::uint32_t slot = Tls::Allocate(nullptr);
  EXPECT_NE(slot, Tls::OUT_OF_INDEXES);
  Tls::Free(slot);
}

}  // namespace
