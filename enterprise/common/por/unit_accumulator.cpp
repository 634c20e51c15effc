#include "enterprise/common/por/unit_accumulator.h"

#include <utility>

#include "core/common/message_table.h"
#include "enterprise/common/por/assign_unit.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"

namespace Por::Util {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/unit_accumulator"};

// The unit that takes what an ended frame gives; it has one unless the calls make no sense.
Construction::Unit& CheckEnclosing(Construction::Unit* unit) {
  if (unit == nullptr) {
    throw ModuleError(kPorNullUnit, Common::GetMessageText(Common::MessageRow::PorNullUnit),
                      kSource.At("CheckEnclosing", 10));
  }
  return *unit;
}

}  // namespace

// One open unit. Frames own what is not yet in the tree, each for itself, so that an unfinished
// tree is destroyed frame by frame.
struct UnitAccumulator::Frame {
  explicit Frame(Kind frame_kind) : kind(frame_kind) {}

  void Own(OwnedUnit value, unsigned int value_index) {
    owned = std::move(value);
    unit = owned.get();
    index = value_index;
  }
  void Borrow(Construction::Unit& value) {
    unit = &value;
    index = GetValueTypeIndex(value);
  }

  Name name;  // of a property or trait
  Kind kind;
  OwnedUnit owned;                     // null for a unit that is in the tree already
  Construction::Unit* unit = nullptr;  // the owned unit or the one in the tree
  unsigned int index = kNoIndex;       // type index of `unit`
  unsigned int count = 0;              // ExistingArray: number of elements found
  unsigned int next = 0;               // ExistingArray: the element to overwrite next
};

UnitAccumulator::UnitAccumulator(const Construction::UnitFactory& factory) : factory_(&factory) {
  frames_.emplace_back(Kind::Root);
}

UnitAccumulator::~UnitAccumulator() = default;

UnitAccumulator::Frame& UnitAccumulator::Push(Kind kind) {
  if (frames_.size() >= kMaxUnitDepth) {
    too_deep_ = true;
    throw ModuleError(kPorInternal, Common::GetMessageText(Common::MessageRow::PorInternal),
                      kSource.At("Push", 20));
  }
  return frames_.emplace_back(kind);
}

// An array or composite of the tree takes no new value: what follows goes into it.
void UnitAccumulator::Overwrite(Frame& frame, const View::Unit& value) {
  if (frame.index >= kArrayIndex) return;
  AssignUnit(*frame.unit, value, *factory_);
}

void UnitAccumulator::PlaceValue(OwnedUnit value, unsigned int index) {
  Frame& top = frames_.back();
  if (top.unit == nullptr) {
    top.Own(std::move(value), index);
    return;
  }
  if (top.index == kNilIndex) {
    if (top.kind != Kind::Root) top.kind = Kind::NewProperty;
    top.Own(std::move(value), index);
    return;
  }
  if (top.kind == Kind::Root && top.index != kArrayIndex) return;
  if (top.kind == Kind::ExistingProperty) {
    Overwrite(top, *value);
    return;
  }
  if (top.kind == Kind::ExistingArray && top.next < top.count) {
    Construction::Unit& element = *GetArrayElement(*top.unit, top.next++);
    Frame& frame = Push(Kind::ExistingElement);
    frame.Borrow(element);
    Overwrite(frame, *value);
    return;
  }
  Push(Kind::NewElement).Own(std::move(value), index);
}

void UnitAccumulator::Nil() {
  PlaceValue(factory_->CreateNil(), kNilIndex);
}

#define POR_CALL(index, Word, Value, Argument)        \
  void UnitAccumulator::Word(Argument value) {        \
    PlaceValue(factory_->Create##Word(value), index); \
  }
POR_SCALAR_KINDS(POR_CALL)
#undef POR_CALL

#define POR_CALL(index, Word, Value, Argument)        \
  void UnitAccumulator::Word(const Argument& value) { \
    PlaceValue(factory_->Create##Word(value), index); \
  }
POR_COMPLEX_KINDS(POR_CALL)
#undef POR_CALL

void UnitAccumulator::Array() {
  Frame& top = frames_.back();
  if (top.kind == Kind::ExistingProperty) {
    top.kind = Kind::ExistingArray;
    top.count = static_cast<unsigned int>(GetArraySize(*top.unit));
    return;
  }
  PlaceValue(factory_->CreateArray(), kArrayIndex);
}

void UnitAccumulator::Composite() {
  PlaceValue(factory_->CreateComposite(), kCompositeIndex);
}

void UnitAccumulator::Property(const Name& name) {
  Construction::Property* existing = FindProperty(CheckEnclosing(frames_.back().unit), name);
  Frame& frame = Push(existing != nullptr ? Kind::ExistingProperty : Kind::NewProperty);
  frame.name = name;
  if (existing != nullptr) frame.Borrow(existing->GetValue());
}

void UnitAccumulator::Trait(const Name& name) {
  Push(Kind::Trait).name = name;
}

void UnitAccumulator::End() {
  Frame frame = std::move(frames_.back());
  frames_.pop_back();
  if (frame.kind == Kind::Root) {
    result_ = std::move(frame.owned);
    frames_.emplace_back(Kind::Root);
    return;
  }
  Construction::Unit* enclosing = frames_.back().unit;
  switch (frame.kind) {
    case Kind::NewProperty:
      AddProperty(CheckEnclosing(enclosing), frame.name, std::move(frame.owned), *factory_);
      break;
    case Kind::Trait:
      AddTrait(CheckEnclosing(enclosing), frame.name, std::move(frame.owned), *factory_);
      break;
    case Kind::NewElement:
      AppendToArray(CheckEnclosing(enclosing), std::move(frame.owned));
      break;
    case Kind::Root:
    case Kind::ExistingProperty:
    case Kind::ExistingArray:
    case Kind::ExistingElement:
      break;  // changed in place
  }
}

OwnedUnit UnitAccumulator::TakeResult() {
  return std::move(result_);
}

}  // namespace Por::Util
