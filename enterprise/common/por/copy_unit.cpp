#include <cstddef>
#include <utility>

#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/small_stack.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"

namespace Por::Util {
namespace {

// A child of the unit in work: an element (no name), a property or a trait.
struct Child {
  const Name* name;
  const View::Unit* value;
};
using Children = Por::Detail::SmallStack<Child, 32>;

// Makes the copy of a value, arrays and composites empty, and lists their children.
class UnitValueCopier final : public View::UnitReader {
 public:
  UnitValueCopier(const Construction::UnitFactory& factory, Children& children)
      : factory_(factory), children_(children) {}

  void Visit(const View::NilValue&) override { copy = factory_.CreateNil(); }
#define POR_COPY(index, Word, Value, Argument)    \
  void Visit(const View::Value& value) override { \
    copy = factory_.Create##Word(value.Get());    \
  }
  POR_SCALAR_KINDS(POR_COPY)
  POR_COMPLEX_KINDS(POR_COPY)
#undef POR_COPY
  void Visit(const View::ArrayValue& value) override {
    copy = factory_.CreateArray();
    auto list = MakeProcessor<const View::Unit>([this](const View::Unit& element) {
      children_.Push({nullptr, &element});
    });
    value.ForEach(list);
  }
  void Visit(const View::CompositeValue& value) override {
    copy = factory_.CreateComposite();
    auto list = MakeProcessor<const View::Property>([this](const View::Property& property) {
      children_.Push({&property.GetName(), &property.GetValue()});
    });
    value.ForEach(list);
  }

  OwnedUnit copy;

 private:
  const Construction::UnitFactory& factory_;
  Children& children_;
};

// Adds the copy of an element to a new array.
class ArrayValueFitter final : public Construction::NullVisitor {
 public:
  using Construction::NullVisitor::Visit;
  explicit ArrayValueFitter(OwnedUnit element) : element_(std::move(element)) {}
  void Visit(Construction::ArrayValue& value) override { value.PushBack(std::move(element_)); }

 private:
  OwnedUnit element_;
};

// Adds the copy of a property to a new composite.
class CompositeValueFitter final : public Construction::NullVisitor {
 public:
  using Construction::NullVisitor::Visit;
  explicit CompositeValueFitter(OwnedProperty property) : property_(std::move(property)) {}
  void Visit(Construction::CompositeValue& value) override { value.Set(std::move(property_)); }

 private:
  OwnedProperty property_;
};

// Children are listed during the visit and copied after it, so that a level of the tree costs one
// frame of the stack and not a chain of visits and walks.
class Copier {
 public:
  explicit Copier(const Construction::UnitFactory& factory) : factory_(factory) {}

  OwnedUnit Copy(const View::Unit& unit) {
    const std::size_t begin = children_.GetSize();
    OwnedUnit copy = CopyValue(unit);
    const std::size_t traits = children_.GetSize();
    ListTraits(unit);
    const std::size_t end = children_.GetSize();
    for (std::size_t i = begin; i < end; ++i) {
      const Child child = children_[i];
      Add(*copy, child, i >= traits, Copy(*child.value));
    }
    children_.Truncate(begin);
    return copy;
  }

 private:
  OwnedUnit CopyValue(const View::Unit& unit) {
    UnitValueCopier copier(factory_, children_);
    unit.Accept(copier);
    return std::move(copier.copy);
  }

  void ListTraits(const View::Unit& unit) {
    auto list = MakeProcessor<const View::Trait>([this](const View::Trait& trait) {
      children_.Push({&trait.GetName(), &trait.GetValue()});
    });
    unit.GetTraits().ForEach(list);
  }

  void Add(Construction::Unit& unit, const Child& child, bool trait, OwnedUnit value) {
    if (trait) {
      unit.GetTraits().Add(factory_.CreateTrait(*child.name, std::move(value)));
    } else if (child.name == nullptr) {
      ArrayValueFitter fitter(std::move(value));
      unit.Accept(fitter);
    } else {
      CompositeValueFitter fitter(factory_.CreateProperty(*child.name, std::move(value)));
      unit.Accept(fitter);
    }
  }

  const Construction::UnitFactory& factory_;
  Children children_;
};

}  // namespace

OwnedUnit CopyUnit(const View::Unit& unit, const Construction::UnitFactory& factory) {
  return Copier(factory).Copy(unit);
}

}  // namespace Por::Util
