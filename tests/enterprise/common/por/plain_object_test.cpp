#include "enterprise/common/por/plain_object.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <typeinfo>

#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/support/text.h"

namespace Por::Test {
namespace {

class TestObject : public BaseObject {
 public:
  using BaseObject::BaseObject;
  using BaseObject::GetErrorHandler;
};

void ExpectError(const std::function<void()>& call, unsigned int code, const char* message,
                 const char* function, unsigned int line) {
  try {
    call();
    ADD_FAILURE() << message;
  } catch (const Common::Error& error) {
    EXPECT_EQ(typeid(error), typeid(Common::Error));
    EXPECT_EQ(error.GetCode(), code);
    EXPECT_EQ(TestSupport::Utf8(error.GetMessage()), message);
    EXPECT_STREQ(error.GetLineTag().function, function);
    EXPECT_EQ(error.GetLineTag().line, line);
  }
}

constexpr char kUninitialized[] = "POR: There was an attempt to access an uninitialized object.";

TEST(PlainObject, WhatItDoesNotHaveIsAnError) {
  const TestObject empty(nullptr);
  ExpectError([&] { empty.Factory(); }, 0xFA0001, kUninitialized, "Factory", 245);
  ExpectError([&] { empty.Branch(); }, 0xFA0001, kUninitialized, "Branch", 252);
  ExpectError([&] { empty.CreateUnit(); }, 0xFA0001, kUninitialized, "Branch", 252);
  ExpectError([&] { empty.DefaultValue(); }, 0xFA0001, "POR: An internal error has occurred.",
              "DefaultValue", 330);
}

TEST(PlainObject, PropertyFailuresAreThrownUnlessAHandlerTakesThem) {
  ErrorHandler& errors = TestObject(nullptr).GetErrorHandler();
  ExpectError([&] { errors.PropertyNotFound("Size"); }, 0xFA000D,
              "POR: Property 'Size' cannot be found.", "PropertyNotFound", 52);
  ExpectError([&] { errors.PropertyTypeMismatch("Size", 8, 13); }, 0xFA000A,
              "POR: There is a mismatch in object property 'Size'. Expected property type is "
              "'qword', actual property type is 'string'.",
              "MakePropertyTypeMismatchError", 69);
  const Common::Error reason(7, "Too big.", {});
  const auto process = [&] { errors.PropertyProcessingError("Size", reason); };
  ExpectError(process, 0xFA0001, "POR: Property 'Size' processing error has occurred.",
              "PropertyProcessingError", 62);
  try {
    process();
  } catch (const Common::Error& error) {
    EXPECT_EQ(error.GetNextError().GetCode(), 7u);
  }
}

const View::Unit& GetSeven() {
  static const OwnedUnit seven = DWord(7);
  return *seven;
}

TEST(PlainObject, CopiesShareTheBranchAndKeepTheTree) {
  std::unique_ptr<TestObject> copy;
  {
    const std::shared_ptr<Construction::Unit> root =
        Composite("a", Composite("b", DWord(1)), "c", DWord(2));
    TestObject object(root, &Util::FindProperty(*root, "a")->GetValue(), &Factory());
    object.SetDefaultValue(&GetSeven);
    copy = std::make_unique<TestObject>(object);
    Util::AddProperty(object.Branch(), "d", DWord(3), Factory());
  }
  const OwnedUnit unit = copy->CreateUnit();
  const OwnedUnit expected = Composite("b", DWord(1), "d", DWord(3));
  EXPECT_TRUE(Util::UnitEqual(*unit, *expected));
  Util::DeleteProperty(*unit, "b");
  EXPECT_NE(Util::FindProperty(copy->Branch(), "b"), nullptr);
  EXPECT_EQ(&copy->DefaultValue(), &GetSeven());
}

}  // namespace
}  // namespace Por::Test
