#include "enterprise/common/por/assign_unit.h"

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/por/binary_value_operation.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"

namespace Por::Util {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/assign_unit"};

[[noreturn]] void ThrowAssignError(std::uint32_t code, Common::MessageRow row,
                                   const Common::LineTag& tag) {
  throw ModuleError(code, Common::GetMessageText(row), tag);
}

void EnsureUnitsCanBeAssigned(const View::Unit& target, const View::Unit& source) {
  if (TraitsIncluded(source, target)) return;
  ThrowAssignError(kPorAssignTraits, Common::MessageRow::PorAssignTraits,
                   kSource.At("EnsureUnitsCanBeAssigned", 40));
}

// Sets `has_array` when arrays are to be assigned.
void CheckAssign(const View::Unit& target, const View::Unit& source, bool& has_array);

// The check pass on two values: throws if the perform pass could not be carried out whole.
class CheckAssignStrategy {
 public:
  explicit CheckAssignStrategy(bool& has_array) : has_array_(has_array) {}

  void operator()(const auto&, const auto&) {
    ThrowAssignError(kPorAssignTypes, Common::MessageRow::PorAssignTypes,
                     kSource.At("CheckAssignStrategy", 50));
  }

  void operator()(const View::NilValue&, const View::NilValue&) {}
  template <class T>
  void operator()(const View::ScalarValue<T>&, const View::ScalarValue<T>&) {}
  template <class T>
  void operator()(const View::ComplexValue<T>&, const View::ComplexValue<T>&) {}
  // Sizes and elements may differ.
  void operator()(const View::ArrayValue&, const View::ArrayValue&) { has_array_ = true; }

  void operator()(const View::CompositeValue& target, const View::CompositeValue& source) {
    auto check_property = MakeProcessor<const View::Property>([&](const View::Property& property) {
      auto check_pair = MakeProcessor<const View::Property>([&](const View::Property& partner) {
        CheckAssign(partner.GetValue(), property.GetValue(), has_array_);
      });
      if (!target.Find(property.GetName(), check_pair)) {
        ThrowAssignError(kPorAssignProperties, Common::MessageRow::PorAssignProperties,
                         kSource.At("CheckAssignStrategy", 60));
      }
    });
    source.ForEach(check_property);
  }

 private:
  bool& has_array_;
};

void CheckAssign(const View::Unit& target, const View::Unit& source, bool& has_array) {
  EnsureUnitsCanBeAssigned(target, source);
  CheckAssignStrategy strategy(has_array);
  BinaryValueOperation::Resolve(strategy, target, source);
}

// The perform pass on two values that were checked, so that other pairs don't come. The checks of
// the pairs below would only repeat what the outermost ones have found, since nothing that they
// look at changes before their turn: traits never, and the values of a pair only by themselves.
class PerformAssignStrategy {
 public:
  // Either everything but arrays, or arrays alone.
  explicit PerformAssignStrategy(bool arrays) : arrays_(arrays) {}

  void operator()(auto&, const auto&) {}

  template <class T>
  void operator()(Modification::ScalarValue<T>& target, const View::ScalarValue<T>& source) {
    if (!arrays_) target.Set(source.Get());
  }

  template <class T>
  void operator()(Modification::ComplexValue<T>& target, const View::ComplexValue<T>& source) {
    if (!arrays_) target.Set(source.Get());
  }

  void operator()(Modification::ArrayValue& target, const View::ArrayValue& source) {
    if (!arrays_) return;
    target.Clear();
    auto add = MakeProcessor<const View::Unit>(
        [&](const View::Unit& element) { target.PushBack(element); });
    source.ForEach(add);
  }

  void operator()(Modification::CompositeValue& target, const View::CompositeValue& source) {
    auto assign = MakeProcessor<const View::Property>([&](const View::Property& property) {
      auto assign_pair =
          MakeProcessor<Modification::Property>([&](Modification::Property& partner) {
            BinaryValueOperation::Resolve(*this, partner.GetValue(), property.GetValue());
          });
      target.Find(property.GetName(), assign_pair);
    });
    source.ForEach(assign);
  }

 private:
  const bool arrays_;
};

}  // namespace

void AssignUnit(Modification::Unit& target, const View::Unit& source,
                const Construction::UnitFactory& factory) {
  bool has_array = false;
  CheckAssign(target, source, has_array);
  if (&target == &source) return;
  // What is assigned to arrays is copied first: the source may lie inside an array of the target
  // and would die with its old elements, or hold the target and change under the walk. All else
  // changes in its place, so the source itself serves, and the chains of its errors are shared.
  const OwnedUnit copy = has_array ? CopyUnit(source, factory) : nullptr;
  PerformAssignStrategy values(false);
  BinaryValueOperation::Resolve(values, target, source);
  if (!has_array) return;
  PerformAssignStrategy arrays(true);
  BinaryValueOperation::Resolve(arrays, target, static_cast<const View::Unit&>(*copy));
}

}  // namespace Por::Util
