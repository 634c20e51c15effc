#pragma once

#include <utility>

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/visitor.h"

namespace Por::Util::Detail {

// Calls `function` with the unit's value if it is a `Value` (a value class of the reading face) and
// tells whether it was. The value need not outlive the call: a decorator shows one of its own.
template <class Value, class Function>
bool VisitValue(const View::Unit& unit, Function&& function) {
  class Visitor final : public View::NullVisitor {
   public:
    using View::NullVisitor::Visit;
    explicit Visitor(Function& function) : function_(function) {}
    void Visit(const Value& value) override {
      visited = true;
      function_(value);
    }
    bool visited = false;

   private:
    Function& function_;
  };
  Visitor visitor(function);
  unit.Accept(visitor);
  return visitor.visited;
}

// The same in the building face.
template <class Value, class Function>
bool VisitOwnedValue(Construction::Unit& unit, Function&& function) {
  class Visitor final : public Construction::NullVisitor {
   public:
    using Construction::NullVisitor::Visit;
    explicit Visitor(Function& function) : function_(function) {}
    void Visit(Value& value) override {
      visited = true;
      function_(value);
    }
    bool visited = false;

   private:
    Function& function_;
  };
  Visitor visitor(function);
  unit.Accept(visitor);
  return visitor.visited;
}

}  // namespace Por::Util::Detail
