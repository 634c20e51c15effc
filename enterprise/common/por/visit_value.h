#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/visitor.h"

namespace Por::Util::Detail {

// Acts on one kind of value only; `NullVisitor` and `Value` are of the same face.
template <class NullVisitor, class Value, class Function>
class ValueVisitor final : public NullVisitor {
 public:
  using NullVisitor::Visit;
  explicit ValueVisitor(Function& function) : function_(function) {}
  void Visit(Value& value) override {
    visited = true;
    function_(value);
  }
  bool visited = false;

 private:
  Function& function_;
};

// Calls `function` with the unit's value if it is a `Value` (a value class of the reading face) and
// tells whether it was. The value need not outlive the call: a decorator shows one of its own.
template <class Value, class Function>
bool VisitValue(const View::Unit& unit, Function&& function) {
  ValueVisitor<View::NullVisitor, const Value, Function> visitor(function);
  unit.Accept(visitor);
  return visitor.visited;
}

// The same in the building face.
template <class Value, class Function>
bool VisitOwnedValue(Construction::Unit& unit, Function&& function) {
  ValueVisitor<Construction::NullVisitor, Value, Function> visitor(function);
  unit.Accept(visitor);
  return visitor.visited;
}

}  // namespace Por::Util::Detail
