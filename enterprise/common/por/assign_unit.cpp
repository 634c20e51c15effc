#include "enterprise/common/por/assign_unit.h"

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visit_value.h"
#include "enterprise/common/por/visitor.h"

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

// The check pass: changes nothing, and throws if the perform pass could not be carried out whole.
void CheckAssign(const View::Unit& target, const View::Unit& source) {
  EnsureUnitsCanBeAssigned(target, source);
  if (!HaveSameType(target, source)) {
    ThrowAssignError(kPorAssignTypes, Common::MessageRow::PorAssignTypes,
                     kSource.At("CheckAssign", 50));
  }
  const auto check_composites = [](const View::CompositeValue& target_value,
                                   const View::CompositeValue& source_value) {
    auto check_property = MakeProcessor<const View::Property>([&](const View::Property& property) {
      auto check_pair = MakeProcessor<const View::Property>([&](const View::Property& partner) {
        CheckAssign(partner.GetValue(), property.GetValue());
      });
      if (!target_value.Find(property.GetName(), check_pair)) {
        ThrowAssignError(kPorAssignProperties, Common::MessageRow::PorAssignProperties,
                         kSource.At("CheckAssign", 60));
      }
    });
    source_value.ForEach(check_property);
  };
  Detail::VisitValue<View::CompositeValue>(source, [&](const View::CompositeValue& source_value) {
    Detail::VisitValue<View::CompositeValue>(target, [&](const View::CompositeValue& target_value) {
      check_composites(target_value, source_value);
    });
  });
}

// The perform pass over units that were checked: visits the target with the source at hand. The
// checks of the pairs below would only repeat what the outermost ones have found, since nothing
// that they look at has changed: traits stay, and a pair's values are not yet touched.
class PerformAssignStrategy {
 public:
  explicit PerformAssignStrategy(const View::Unit& source) : source_(source) {}

  void operator()(Modification::NilValue&) {}

  template <class T>
  void operator()(Modification::ScalarValue<T>& target) {
    Detail::VisitValue<View::ScalarValue<T>>(
        source_, [&](const View::ScalarValue<T>& source) { target.Set(source.Get()); });
  }

  template <class T>
  void operator()(Modification::ComplexValue<T>& target) {
    Detail::VisitValue<View::ComplexValue<T>>(
        source_, [&](const View::ComplexValue<T>& source) { target.Set(source.Get()); });
  }

  void operator()(Modification::ArrayValue& target) {
    target.Clear();
    Detail::VisitValue<View::ArrayValue>(source_, [&](const View::ArrayValue& source) {
      auto add = MakeProcessor<const View::Unit>(
          [&](const View::Unit& element) { target.PushBack(element); });
      source.ForEach(add);
    });
  }

  void operator()(Modification::CompositeValue& target) {
    Detail::VisitValue<View::CompositeValue>(source_, [&](const View::CompositeValue& source) {
      auto assign = MakeProcessor<const View::Property>([&](const View::Property& property) {
        auto assign_pair =
            MakeProcessor<Modification::Property>([&](Modification::Property& partner) {
              Perform(partner.GetValue(), property.GetValue());
            });
        target.Find(property.GetName(), assign_pair);
      });
      source.ForEach(assign);
    });
  }

  static void Perform(Modification::Unit& target, const View::Unit& source) {
    PerformAssignStrategy strategy(source);
    Modification::Detail::UnitVisitorAdaptor writer(strategy);
    target.Accept(writer);
  }

 private:
  const View::Unit& source_;
};

}  // namespace

void AssignUnit(Modification::Unit& target, const View::Unit& source,
                const Construction::UnitFactory& factory) {
  CheckAssign(target, source);
  if (&target == &source) return;
  if (!IsArray(source) && !IsComposite(source)) {
    PerformAssignStrategy::Perform(target, source);
    return;
  }
  // The source may lie inside an array of the target and would die with its old elements, or hold
  // the target and change under the walk.
  const OwnedUnit copy = CopyUnit(source, factory);
  PerformAssignStrategy::Perform(target, *copy);
}

}  // namespace Por::Util
