#include "enterprise/common/por/plain_object.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"

namespace Por::Test {
namespace {

class TestObject : public BaseObject {
 public:
  using BaseObject::BaseObject;
  using BaseObject::GetErrorHandler;
};

// An error with the place of a call, in this folder.
void ExpectError(const Thrown& thrown, const std::string& error, const char* place) {
  EXPECT_EQ(thrown.error, "Error fa000" + error);
  EXPECT_EQ(thrown.place, std::string("enterprise/common/por/").append(place));
}

TEST(PlainObject, WhatItDoesNotHaveIsAnErrorAndSoIsABadPropertyWithoutAHandler) {
  constexpr char kUninitialized[] =
      "1: POR: There was an attempt to access an uninitialized object.";
  const TestObject empty(nullptr);
  ExpectError(Catch([&] { empty.Factory(); }), kUninitialized, "plain_object:245 Factory");
  ExpectError(Catch([&] { empty.CreateUnit(); }), kUninitialized, "plain_object:252 Branch");
  ExpectError(Catch([&] { empty.DefaultValue(); }), "1: POR: An internal error has occurred.",
              "plain_object:330 DefaultValue");
  ErrorHandler& errors = empty.GetErrorHandler();
  ExpectError(Catch([&] { errors.PropertyNotFound("Size"); }),
              "d: POR: Property 'Size' cannot be found.", "plain_object:52 PropertyNotFound");
  ExpectError(Catch([&] { errors.PropertyTypeMismatch("Size", 8, 13); }),
              "a: POR: There is a mismatch in object property 'Size'. Expected property type "
              "is 'qword', actual property type is 'string'.",
              "types_mismatch:69 MakePropertyTypeMismatchError");
  const Common::Error reason(7, "Too big.", {});
  try {
    errors.PropertyProcessingError("Size", reason);
    ADD_FAILURE();
  } catch (const Common::Error& error) {
    EXPECT_EQ(error.GetNextError().GetCode(), 7u);
    ExpectError(Catch([&] { throw Common::Error(error); }),
                "1: POR: Property 'Size' processing error has occurred.",
                "plain_object:62 PropertyProcessingError");
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
