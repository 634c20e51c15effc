#include <memory>
#include <new>
#include <utility>

#include "enterprise/common/por/array_value_holder.h"
#include "enterprise/common/por/complex_value_holder.h"
#include "enterprise/common/por/composite_value_holder.h"
#include "enterprise/common/por/nil_value_holder.h"
#include "enterprise/common/por/object.h"
#include "enterprise/common/por/property_holder.h"
#include "enterprise/common/por/scalar_value_holder.h"
#include "enterprise/common/por/trait_holder.h"
#include "enterprise/common/por/unit_factory.h"

namespace Por {
namespace {

// A chain that depends on nothing but its own bytes; empty if that fails.
Common::Error Detach(const Common::Error& error) {
  if (error.GetCode() == 0) return error;
  try {
    unsigned int size = 0;
    const std::unique_ptr<unsigned char[]> bytes = error.Save(size);
    Common::Error copy = Common::Error::Load(bytes.get(), size);
    // Reading tells a lack of memory by a record of its own.
    const bool whole = copy.GetCode() == error.GetCode() &&
                       (!copy.HoldsCode(Common::kOutOfMemoryCode) ||
                        error.HoldsCode(Common::kOutOfMemoryCode));
    return whole ? copy : Common::Error();
  } catch (const std::bad_alloc&) {
    return Common::Error();
  }
}

// A member of static storage whose destructor never runs.
union ImmortalFactory {
  constexpr ImmortalFactory() : factory() {}
  ~ImmortalFactory() {}

  Construction::InMemoryUnitFactory factory;
};
constinit ImmortalFactory static_factory;

}  // namespace

namespace Construction {

OwnedUnit InMemoryUnitFactory::CreateNil() const {
  return std::make_unique<Object<NilValueHolder>>();
}

#define POR_CREATE_SCALAR(index, Word, Value, Argument)                  \
  OwnedUnit InMemoryUnitFactory::Create##Word(Argument value) const {    \
    return std::make_unique<Object<ScalarValueHolder<Argument>>>(value); \
  }
POR_SCALAR_KINDS(POR_CREATE_SCALAR)
#undef POR_CREATE_SCALAR

OwnedUnit InMemoryUnitFactory::CreateBlob(const std::vector<unsigned char>& value) const {
  return std::make_unique<Object<ComplexValueHolder<std::vector<unsigned char>>>>(value);
}

OwnedUnit InMemoryUnitFactory::CreateGuid(const Common::Guid& value) const {
  return std::make_unique<Object<ComplexValueHolder<Common::Guid>>>(value);
}

OwnedUnit InMemoryUnitFactory::CreateString(const Common::String& value) const {
  return std::make_unique<Object<ComplexValueHolder<Common::String>>>(value);
}

OwnedUnit InMemoryUnitFactory::CreateError(const Common::Error& value) const {
  return std::make_unique<Object<ComplexValueHolder<Common::Error>>>(Detach(value));
}

OwnedUnit InMemoryUnitFactory::CreateArray() const {
  return std::make_unique<Object<ArrayValueHolder>>();
}

OwnedUnit InMemoryUnitFactory::CreateComposite() const {
  return std::make_unique<Object<CompositeValueHolder>>();
}

OwnedTrait InMemoryUnitFactory::CreateTrait(const Name& name, OwnedUnit value) const {
  return std::make_unique<TraitHolder>(name, std::move(value));
}

OwnedProperty InMemoryUnitFactory::CreateProperty(const Name& name, OwnedUnit value) const {
  return std::make_unique<PropertyHolder>(name, std::move(value));
}

std::unique_ptr<UnitFactory> CreateInMemoryUnitFactory() {
  return std::make_unique<InMemoryUnitFactory>();
}

}  // namespace Construction

Construction::UnitFactory* GetStaticUnitFactory() {
  return &static_factory.factory;
}

}  // namespace Por
