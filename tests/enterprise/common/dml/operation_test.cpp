#include "enterprise/common/dml/operation.h"

#include <gtest/gtest.h>

#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/por/construction_dynamic_context.h"
#include "enterprise/common/por/unit_operations.h"

namespace Dml::Operation {
namespace {

template <class Class>
void ExpectIsPrototype() {
  const Class operation;
  const Por::OwnedUnit unit = operation.CreateUnit();
  const Por::OwnedUnit prototype = Por::MakePrototype(
      Por::ConstructionDynamicContext::Get().Find(Class::kName), *Por::GetStaticUnitFactory());
  EXPECT_TRUE(Por::Util::UnitEqual(*unit, *prototype));
  EXPECT_TRUE(Por::Util::UnitEqual(operation.DefaultValue(), *prototype));
  EXPECT_EQ(&operation.DefaultValue(), &Class().DefaultValue());
  EXPECT_NO_THROW(GetObjectKey(*unit));
}

TEST(Operation, IsMadeAsItsPrototypeWhichIsItsDefaultValue) {
  ExpectIsPrototype<Definition>();
#define EXPECT_CLASS(Class) ExpectIsPrototype<Class>();
  DML_OPERATIONS(EXPECT_CLASS)
#undef EXPECT_CLASS
}

}  // namespace
}  // namespace Dml::Operation
