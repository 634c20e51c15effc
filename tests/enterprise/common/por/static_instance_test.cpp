#include "enterprise/common/por/static_instance.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"

namespace Por::Util {
namespace {

std::atomic<int> made{0};

OwnedUnit MakeText() {
  ++made;
  return GetStaticUnitFactory()->CreateString(u"shared by all threads");
}

TEST(StaticInstance, MakesOneUnitForAllThreadsWhenFirstAsked) {
  constexpr int kThreads = 4;
  for (int round = 0; round < 200; ++round) {
    made = 0;
    const StaticInstance instance(&MakeText);
    EXPECT_EQ(0, made);
    std::atomic<int> waiting{kThreads};
    std::vector<const View::Unit*> seen(kThreads);
    std::vector<std::thread> threads;
    for (const View::Unit*& unit : seen) {
      threads.emplace_back([&] {
        --waiting;
        while (waiting != 0) std::this_thread::yield();
        unit = &instance.Get();
        EXPECT_EQ(kStringIndex, GetValueTypeIndex(*unit));
      });
    }
    for (std::thread& thread : threads) thread.join();
    made = 0;
    EXPECT_EQ(std::vector<const View::Unit*>(kThreads, &instance.Get()), seen);
    EXPECT_EQ(0, made);
  }
}

}  // namespace
}  // namespace Por::Util
