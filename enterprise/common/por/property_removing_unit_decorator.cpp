#include "enterprise/common/por/property_removing_unit_decorator.h"

#include <memory>
#include <utility>

#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/iterator.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"

namespace Por::View {

namespace {

// Passes on all properties but the hidden one.
class SkippingProcessor final : public ItemProcessor<const Property> {
 public:
  SkippingProcessor(ItemProcessor<const Property>& processor, const Name& name)
      : processor_(processor), name_(name) {}
  bool Process(const Property& property) override {
    return !(property.GetName() == name_) && processor_.Process(property);
  }

 private:
  ItemProcessor<const Property>& processor_;
  const Name& name_;
};

}  // namespace

// Never stands on the hidden property. One step over it suffices, as a name occurs once.
struct PropertyRemovingUnitDecorator::IteratorState {
  IteratorState(const Name& hidden, PropertyIterator<const Property> iterator)
      : name(hidden), inner(std::move(iterator)) {
    SkipHidden();
  }

  void SkipHidden() {
    if (inner.IsValid() && inner.Current().GetName() == name) inner.Advance();
  }

  static const Property& Current(void* state) {
    return static_cast<IteratorState*>(state)->inner.Current();
  }
  static void Advance(void* state) {
    auto* self = static_cast<IteratorState*>(state);
    self->inner.Advance();
    self->SkipHidden();
  }
  static bool IsValid(const void* state) {
    return static_cast<const IteratorState*>(state)->inner.IsValid();
  }

  Name name;
  PropertyIterator<const Property> inner;
};

// The composite without the hidden property.
class PropertyRemovingUnitDecorator::Value final : public CompositeValue {
 public:
  Value(const CompositeValue& inner, const Name& name) : inner_(inner), name_(name) {}

  void ForEach(ItemProcessor<const Property>& processor) const override {
    SkippingProcessor skipping(processor, name_);
    inner_.ForEach(skipping);
  }
  bool Find(const Name& name, ItemProcessor<const Property>& processor) const override {
    return !(name == name_) && inner_.Find(name, processor);
  }
  PropertyIterator<const Property> GetIterator() const override {
    return {std::make_shared<IteratorState>(name_, inner_.GetIterator()), IteratorState::Current,
            IteratorState::Advance, IteratorState::IsValid};
  }

 private:
  const CompositeValue& inner_;
  const Name& name_;
};

// Passes the value to the caller's reader, a composite in the filtering wrap.
class PropertyRemovingUnitDecorator::Reader final : public UnitReader {
 public:
  Reader(UnitReader& reader, const Name& name) : reader_(reader), name_(name) {}

#define POR_VISIT(index, Word, ValueClass, Argument) \
  void Visit(const ValueClass& value) override {     \
    reader_.Visit(value);                            \
  }
  POR_VISIT(0, Nil, NilValue, void)
  POR_SCALAR_KINDS(POR_VISIT)
  POR_COMPLEX_KINDS(POR_VISIT)
  POR_VISIT(15, Array, ArrayValue, void)
#undef POR_VISIT
  void Visit(const CompositeValue& value) override {
    reader_.Visit(Value(value, name_));
  }

 private:
  UnitReader& reader_;
  const Name& name_;
};

void PropertyRemovingUnitDecorator::Accept(UnitReader& reader) const {
  Reader wrapped(reader, name_);
  inner_->Accept(wrapped);
}

}  // namespace Por::View
