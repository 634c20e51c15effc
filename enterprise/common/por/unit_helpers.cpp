#include "enterprise/common/por/unit_helpers.h"

#include <cstring>
#include <string>
#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/text.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/type_mismatch_throwing_visitor.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visit_value.h"

namespace Por::Util {

namespace {

using Detail::VisitOwnedValue;
using Detail::VisitValue;

constexpr Common::SourceFile kSource{"enterprise/common/por/unit_helpers"};

ModuleError MakeNameError(std::uint32_t code, Common::MessageRow row, const Name& name,
                          const Common::LineTag& tag) {
  Common::String text;
  Common::FormatMessage(text, Common::GetMessageText(row), name.ToString());
  return ModuleError(code, text.c_str(), tag);
}

// The property of that name in a composite value, null if there is none.
template <class Property, class CompositeValue>
Property* FindIn(CompositeValue& composite, const Name& name) {
  Property* found = nullptr;
  auto processor = MakeProcessor<Property>([&found](Property& property) {
    found = &property;
    return true;
  });
  composite.Find(name, processor);
  return found;
}

template <class Property>
class ConstPropertyResolver final : public View::TypeMismatchThrowingVisitor {
 public:
  using View::TypeMismatchThrowingVisitor::Visit;
  explicit ConstPropertyResolver(const Name& name)
      : TypeMismatchThrowingVisitor(kCompositeIndex), name_(name) {}
  void Visit(const View::CompositeValue& value) override {
    found = FindIn<const Property>(value, name_);
  }
  const Property* found = nullptr;

 private:
  const Name& name_;
};

template <class Property>
class PropertyResolver final : public Construction::CompositeVisitor {
 public:
  using Construction::CompositeVisitor::Visit;
  explicit PropertyResolver(const Name& name) : name_(name) {}
  void Visit(Construction::CompositeValue& value) override {
    found = FindIn<Property>(value, name_);
  }
  Property* found = nullptr;

 private:
  const Name& name_;
};

class PropertyAdder final : public Construction::CompositeVisitor {
 public:
  using Construction::CompositeVisitor::Visit;
  explicit PropertyAdder(OwnedProperty property) : property_(std::move(property)) {}
  void Visit(Construction::CompositeValue& value) override { value.Set(std::move(property_)); }

 private:
  OwnedProperty property_;
};

class PropertyRemover final : public Construction::CompositeVisitor {
 public:
  using Construction::CompositeVisitor::Visit;
  explicit PropertyRemover(const Name& name) : name_(name) {}
  void Visit(Construction::CompositeValue& value) override { value.Remove(name_); }

 private:
  const Name& name_;
};

void CheckPropertyValidity(const void* property, const Name& name) {
  if (property == nullptr) {
    throw MakeNameError(kPorPropertyNotFound, Common::MessageRow::PorPropertyNotFound, name,
                        kSource.At("CheckPropertyValidity", 100));
  }
}

// Stops at the first element equal to the unit it looks for.
template <auto Equal>
class EqualUnitFinder final : public ItemProcessor<const View::Unit> {
 public:
  explicit EqualUnitFinder(const View::Unit& unit) : unit_(unit) {}
  bool Process(const View::Unit& element) override {
    found = Equal(element, unit_);
    return found;
  }
  bool found = false;

 private:
  const View::Unit& unit_;
};

// Acts on an array only.
template <auto Equal>
class ArrayInclusionChecker final : public View::NullVisitor {
 public:
  using View::NullVisitor::Visit;
  explicit ArrayInclusionChecker(const View::Unit& unit) : finder_(unit) {}
  void Visit(const View::ArrayValue& array) override { array.ForEach(finder_); }
  bool IsFound() const { return finder_.found; }

 private:
  EqualUnitFinder<Equal> finder_;
};

template <auto Equal>
bool ArrayIncludes(const View::Unit& array, const View::Unit& unit) {
  ArrayInclusionChecker<Equal> checker(unit);
  array.Accept(checker);
  return checker.IsFound();
}

// Whether the unit is a string whose UTF-8 form, up to a unit 0, is `text`. `buffer` is scratch.
bool IsText(const View::Unit& unit, const Name& text, std::string& buffer) {
  bool equal = false;
  VisitValue<View::ComplexValue<Common::String>>(unit, [&](const auto& value) {
    Common::ToUtf8(buffer, value.Get().c_str());
    equal = std::strcmp(buffer.c_str(), text.GetText()) == 0;
  });
  return equal;
}

// The two faces of an element lookup.
struct ViewFace {
  using Unit = const View::Unit;
  using Property = const View::Property;
  using ArrayValue = View::ArrayValue;
  using CompositeValue = View::CompositeValue;
  template <class Value, class Function>
  static bool Visit(Unit& unit, Function function) {
    return VisitValue<Value>(unit, function);
  }
};
struct ConstructionFace {
  using Unit = Construction::Unit;
  using Property = Construction::Property;
  using ArrayValue = Construction::ArrayValue;
  using CompositeValue = Construction::CompositeValue;
  template <class Value, class Function>
  static bool Visit(Unit& unit, Function function) {
    return VisitOwnedValue<Value>(unit, function);
  }
};

template <class Face>
typename Face::Unit* FindMapElement(typename Face::Unit* unit, const Name& key) {
  using Property = typename Face::Property;
  typename Face::Unit* found = nullptr;
  if (unit == nullptr) return found;
  std::string buffer;
  const auto find_in_entry = [&](auto& composite) {
    Property* first = FindIn<Property>(composite, "first");
    if (first == nullptr || !IsText(first->GetValue(), key, buffer)) return;
    if (Property* second = FindIn<Property>(composite, "second")) found = &second->GetValue();
  };
  const auto find_in_map = [&](auto& array) {
    auto processor = MakeProcessor<typename Face::Unit>([&](typename Face::Unit& element) {
      Face::template Visit<typename Face::CompositeValue>(element, find_in_entry);
      return found != nullptr;
    });
    array.ForEach(processor);
  };
  if (Face::template Visit<typename Face::ArrayValue>(*unit, find_in_map)) return found;
  Face::template Visit<typename Face::CompositeValue>(*unit, [&](auto& composite) {
    if (Property* property = FindIn<Property>(composite, key)) found = &property->GetValue();
  });
  return found;
}

template <class Face>
typename Face::Unit* FindArrayElement(typename Face::Unit& unit, unsigned long long index) {
  typename Face::Unit* found = nullptr;
  Face::template Visit<typename Face::ArrayValue>(unit, [&](auto& array) {
    auto processor = MakeProcessor<typename Face::Unit>([&](typename Face::Unit& element) {
      found = &element;
      return true;
    });
    array.At(index, processor);
  });
  return found;
}

}  // namespace

bool HasTraits(const View::Unit& unit) {
  bool found = false;
  auto processor = MakeProcessor<const View::Trait>([&](const View::Trait&) {
    found = true;
    return true;
  });
  unit.GetTraits().ForEach(processor);
  return found;
}

bool HasTrait(const View::Unit& unit, const Name& name) {
  bool found = false;
  auto processor = MakeProcessor<const View::Trait>([&](const View::Trait&) {
    found = true;
    return true;
  });
  unit.GetTraits().ForEach(name, processor);
  return found;
}

bool HasTraitWithValue(const View::Unit& unit, const Name& name, const View::Unit& value) {
  bool found = false;
  auto processor = MakeProcessor<const View::Trait>([&](const View::Trait& trait) {
    found = UnitValueEqual(trait.GetValue(), value);
    return found;
  });
  unit.GetTraits().ForEach(name, processor);
  return found;
}

const View::Unit& GetUniqueTraitByName(const View::Unit& unit, const Name& name) {
  const View::Unit* found = nullptr;
  bool repeated = false;
  auto processor = MakeProcessor<const View::Trait>([&](const View::Trait& trait) {
    repeated = found != nullptr;
    found = &trait.GetValue();
    return repeated;
  });
  unit.GetTraits().ForEach(name, processor);
  if (found == nullptr) {
    throw MakeNameError(kPorTraitNotFound, Common::MessageRow::PorTraitNotFound, name,
                        kSource.At("GetUniqueTraitByName", 110));
  }
  if (repeated) {
    throw MakeNameError(kPorTraitNotUnique, Common::MessageRow::PorTraitNotUnique, name,
                        kSource.At("GetUniqueTraitByName", 120));
  }
  return *found;
}

bool IsArray(const View::Unit& unit) {
  return GetValueTypeIndex(unit) == kArrayIndex;
}

bool IsComposite(const View::Unit& unit) {
  return GetValueTypeIndex(unit) == kCompositeIndex;
}

bool HaveSameType(const View::Unit& a, const View::Unit& b) {
  return GetValueTypeIndex(a) == GetValueTypeIndex(b);
}

bool IsSearchable(const View::Unit& unit) {
  return IsArray(unit) && HasTrait(unit, "Searchable");
}

bool HasProperties(const View::Unit& unit) {
  bool found = false;
  VisitValue<View::CompositeValue>(unit, [&](const View::CompositeValue& composite) {
    auto processor = MakeProcessor<const View::Property>([&](const View::Property&) {
      found = true;
      return true;
    });
    composite.ForEach(processor);
  });
  return found;
}

const View::Property* FindProperty(const View::Unit& composite, const Name& name) {
  ConstPropertyResolver<View::Property> resolver(name);
  composite.Accept(resolver);
  return resolver.found;
}

Construction::Property* FindProperty(Construction::Unit& composite, const Name& name) {
  PropertyResolver<Construction::Property> resolver(name);
  composite.Accept(resolver);
  return resolver.found;
}

const View::Property& GetProperty(const View::Unit& composite, const Name& name) {
  const View::Property* property = FindProperty(composite, name);
  CheckPropertyValidity(property, name);
  return *property;
}

Construction::Property& GetProperty(Construction::Unit& composite, const Name& name) {
  Construction::Property* property = FindProperty(composite, name);
  CheckPropertyValidity(property, name);
  return *property;
}

void AddProperty(Construction::Unit& composite, const Name& name, OwnedUnit value,
                 const Construction::UnitFactory& factory) {
  PropertyAdder adder(factory.CreateProperty(name, std::move(value)));
  composite.Accept(adder);
}

void AddPropertyCopy(Construction::Unit& composite, const Name& name, const View::Unit& value,
                     const Construction::UnitFactory& factory) {
  AddProperty(composite, name, CopyUnit(value, factory), factory);
}

void DeleteProperty(Construction::Unit& composite, const Name& name) {
  PropertyRemover remover(name);
  composite.Accept(remover);
}

void AddTrait(Construction::Unit& unit, const Name& name, OwnedUnit value,
              const Construction::UnitFactory& factory) {
  unit.GetTraits().Add(factory.CreateTrait(name, std::move(value)));
}

void AppendToArray(Construction::Unit& unit, OwnedUnit element) {
  VisitOwnedValue<Construction::ArrayValue>(
      unit, [&](Construction::ArrayValue& array) { array.PushBack(std::move(element)); });
}

unsigned long long GetArraySize(const View::Unit& unit) {
  unsigned long long size = 0;
  VisitValue<View::ArrayValue>(unit,
                               [&](const View::ArrayValue& array) { size = array.GetSize(); });
  return size;
}

const View::Unit* GetArrayElement(const View::Unit& unit, unsigned long long index) {
  return FindArrayElement<ViewFace>(unit, index);
}

Construction::Unit* GetArrayElement(Construction::Unit& unit, unsigned long long index) {
  return FindArrayElement<ConstructionFace>(unit, index);
}

bool ArrayContains(const View::Unit& array, const View::Unit& unit) {
  return ArrayIncludes<UnitEqual>(array, unit);
}

bool ArrayContainsValue(const View::Unit& array, const View::Unit& unit) {
  return ArrayIncludes<UnitValueEqual>(array, unit);
}

const View::Unit* FindElement(const View::Unit* unit, const Name& key) {
  return FindMapElement<ViewFace>(unit, key);
}

Construction::Unit* FindElement(Construction::Unit* unit, const Name& key) {
  return FindMapElement<ConstructionFace>(unit, key);
}

}  // namespace Por::Util
