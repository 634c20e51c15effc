#include "enterprise/common/por/unit_constructor.h"

#include <utility>

#include "enterprise/common/por/unit_accumulator.h"
#include "enterprise/common/por/walk_unit.h"

namespace Por::Util {

UnitConstructor::UnitConstructor(const Construction::UnitFactory& factory)
    : UnitConstructor(std::make_shared<UnitAccumulator>(factory), factory) {}

UnitConstructor::UnitConstructor(std::shared_ptr<UnitBuilder> builder,
                                 const Construction::UnitFactory& factory)
    : builder_(std::move(builder)), factory_(&factory) {}

#define POR_CALL(index, Word, Value, Argument)                  \
  UnitConstructor UnitConstructor::Word(Argument value) const { \
    builder_->Word(value);                                      \
    return *this;                                               \
  }
POR_SCALAR_KINDS(POR_CALL)
#undef POR_CALL

#define POR_CALL(index, Word, Value, Argument)                         \
  UnitConstructor UnitConstructor::Word(const Argument& value) const { \
    builder_->Word(value);                                             \
    return *this;                                                      \
  }
POR_COMPLEX_KINDS(POR_CALL)
#undef POR_CALL

UnitConstructor UnitConstructor::Nil() const {
  builder_->Nil();
  return *this;
}

UnitConstructor UnitConstructor::Array() const {
  builder_->Array();
  return *this;
}

UnitConstructor UnitConstructor::Composite() const {
  builder_->Composite();
  return *this;
}

UnitConstructor UnitConstructor::Property(const Name& name) const {
  builder_->Property(name);
  return *this;
}

UnitConstructor UnitConstructor::Trait(const Name& name) const {
  builder_->Trait(name);
  return *this;
}

UnitConstructor UnitConstructor::End() const {
  builder_->End();
  return *this;
}

OwnedUnit UnitConstructor::TakeResult() const {
  return builder_->TakeResult();
}

UnitConstructor UnitConstructor::Unit(const View::Unit& unit) const {
  UnitConstructingWalker walker(*this);
  WalkUnit(unit, walker);
  return *this;
}

}  // namespace Por::Util
