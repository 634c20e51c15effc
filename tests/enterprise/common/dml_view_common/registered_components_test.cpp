#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "enterprise/common/ipc/component_info.h"

// The components of a program that names none of them.

namespace Core {
namespace {

TEST(RegisteredComponents, DescribeTheirInterfaces) {
  const struct {
    std::uint32_t id;
    std::uint32_t version;
    int methods;
    const char* file;
  } cases[] = {
      {271, 2, 9, "enterprise/common/dml_view_common/view_manager"},
      {274, 1, 3, "enterprise/common/dml_object_registry_common/object_registry"},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.id);
    const ComponentInfo* const component = FindComponent(expected.id);
    ASSERT_NE(component, nullptr);
    EXPECT_EQ(component->GetVersion(), expected.version);
    for (const int index : {0, 1, expected.methods, expected.methods + 1}) {
      const bool is_method = index != 0 && index <= expected.methods;
      MethodRecord record{7, 7};
      const Common::Error error = component->GetMethodInfo(index, record);
      EXPECT_EQ(error.GetCode(), is_method ? 0 : 0xB9000Cu);
      EXPECT_EQ(record.first, is_method ? 0u : 7u);
      EXPECT_EQ(record.second, is_method ? 2u : 7u);
      if (!is_method) {
        EXPECT_STREQ(error.GetLineTag().file, expected.file);
      }
    }
  }
  EXPECT_EQ(FindComponent(272), nullptr);
}

// Of no other interface's number.
class FakeComponent final : public ComponentInfo {
 public:
  std::uint32_t GetComponentId() const override { return 272001; }
  std::uint32_t GetFirstConstant() const override { return 1; }
  Common::Error GetMethodInfo(int, MethodRecord&) const override { return Common::Error(); }
  std::uint32_t GetVersion() const override { return 1; }
  std::uint32_t GetSecondConstant() const override { return 1; }
  std::uint32_t GetThirdConstant() const override { return 1; }
};

TEST(RegisteredComponents, AreReplacedByLaterOnesOfTheirNumber) {
  static FakeComponent first;
  static FakeComponent second;
  RegisterComponent(&first);
  EXPECT_EQ(FindComponent(272001), &first);
  RegisterComponent(&second);
  EXPECT_EQ(FindComponent(272001), &second);
  RegisterComponent(&first);
  EXPECT_EQ(FindComponent(272001), &first);
}

TEST(RegisteredComponents, AreEnteredAndFoundOnAnyThread) {
  ComponentInfo* const views = FindComponent(271);
  ComponentInfo* const objects = FindComponent(274);
  std::vector<std::thread> threads;
  for (ComponentInfo* const component : {views, objects, views, objects}) {
    threads.emplace_back([=] {
      RegisterComponent(component);
      EXPECT_EQ(FindComponent(271), views);
      EXPECT_EQ(FindComponent(274), objects);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace Core
