#include "enterprise/common/dml/operation.h"

#include <initializer_list>
#include <utility>

#include "core/common/guid.h"
#include "enterprise/common/por/construction_dynamic_context.h"
#include "enterprise/common/por/static_instance.h"

namespace Dml::Operation {

namespace {

using Por::Util::UnitConstructor;

void BeginOperation(const UnitConstructor& make) {
  make.Composite().Trait("Is").String(Definition::kName).End();
  make.Property("ID").Guid(Common::Guid());
  make.Trait("Nil").Nil().End().Trait("PrimaryKey").Nil().End().End();
}

void BeginClass(const UnitConstructor& make, const char16_t* name,
                std::initializer_list<Por::Name> properties) {
  BeginOperation(make);
  make.Trait("Is").String(name).End();
  for (const Por::Name& property : properties) {
    make.Property(property).Nil().Trait("Nil").Nil().End().End();
  }
}

void DefineClass(const UnitConstructor& make, const char16_t* name,
                 std::initializer_list<Por::Name> properties) {
  BeginClass(make, name, properties);
  make.End();
}

template <class Class>
Por::OwnedUnit MakeDefault() {
  return Class(*Por::GetStaticUnitFactory()).CreateUnit();
}

template <class Class>
constinit Por::Util::StaticInstance default_of{&MakeDefault<Class>};

// What it uses is there before any static initialiser has run, or made by its first user.
bool EnterAll() {
  auto& context = Por::ConstructionDynamicContext::Get();
  context.Enter(Definition::kName, &Definition::Define);
#define DML_ENTER(Class) context.Enter(Class::kName, &Class::Define);
  DML_OPERATIONS(DML_ENTER)
#undef DML_ENTER
  return true;
}
[[maybe_unused]] const bool entered = EnterAll();

}  // namespace

void Definition::Define(const UnitConstructor& make) {
  BeginOperation(make);
  make.End();
}
void CreateObject::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Object"});
}
void UpdateObject::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Key", "Patch"});
}
void DeleteObject::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Key"});
}
void UpdateByPattern::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Pattern", "Patch"});
}
void DeleteByPattern::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Pattern", "Options"});
}
void StoreOrUpdate::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Object"});
}
void StoreOrConsolidate::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Object"});
}
void CreateIfNotExist::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Object"});
}
void ConsolidateIfExists::Define(const UnitConstructor& make) {
  DefineClass(make, kName, {"Object"});
}
void BatchOperation::Define(const UnitConstructor& make) {
  BeginClass(make, kName, {});
  make.Property("Operations").Array().End().End();
}

Definition::Definition(std::shared_ptr<Por::Construction::Unit> root,
                       const Por::Construction::UnitFactory& factory,
                       DefaultValueFunction get_default)
    : BaseObject(root, root.get(), &factory) {
  SetDefaultValue(get_default);
}

#define DML_DEFINE_OPERATION(Class, Base)                                                 \
  Class::Class(const Por::Construction::UnitFactory& factory)                             \
      : Base(Por::MakePrototype(&Class::Define, factory), factory, &Class::GetDefault) {} \
  const Por::View::Unit& Class::GetDefault() {                                            \
    return default_of<Class>.Get();                                                       \
  }
#define DML_DEFINE_DERIVED(Class) DML_DEFINE_OPERATION(Class, Definition)
DML_DEFINE_OPERATION(Definition, Definition)
DML_OPERATIONS(DML_DEFINE_DERIVED)
#undef DML_DEFINE_DERIVED
#undef DML_DEFINE_OPERATION

}  // namespace Dml::Operation
