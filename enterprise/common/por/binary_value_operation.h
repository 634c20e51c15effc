#pragma once

#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/visitor.h"

// Double dispatch over the values of two units. An operation is a class with overloads for pairs of
// value classes, `op(left, right)`: mostly a template for any pair and a few for the pairs that
// matter. The right side is of the reading face, the left of the reading or the changing one.
// Instantiate each operation in one source file.

namespace Por::Util::BinaryValueOperation {

// Visits the right unit with the left value known.
template <class Op, class LeftValue>
class RightResolver {
 public:
  RightResolver(Op& op, LeftValue& left) : op_(op), left_(left) {}
  void operator()(const auto& right) { op_(left_, right); }

 private:
  Op& op_;
  LeftValue& left_;
};

// Visits the left unit and then, with its value, the right one.
template <class Op, class Right>
class LeftResolver {
 public:
  LeftResolver(Op& op, const Right& right) : op_(op), right_(right) {}
  template <class LeftValue>
  void operator()(LeftValue& left) {
    RightResolver<Op, LeftValue> resolver(op_, left);
    View::Detail::UnitVisitorAdaptor<RightResolver<Op, LeftValue>> visitor(resolver);
    right_.Accept(visitor);
  }

 private:
  Op& op_;
  const Right& right_;
};

// Calls `op` once, for the values of `left` and `right`. No allocation.
template <class Op>
void Resolve(Op& op, const View::Unit& left, const View::Unit& right) {
  LeftResolver<Op, View::Unit> resolver(op, right);
  View::Detail::UnitVisitorAdaptor<LeftResolver<Op, View::Unit>> visitor(resolver);
  left.Accept(visitor);
}

template <class Op>
void Resolve(Op& op, Modification::Unit& left, const View::Unit& right) {
  LeftResolver<Op, View::Unit> resolver(op, right);
  Modification::Detail::UnitVisitorAdaptor<LeftResolver<Op, View::Unit>> visitor(resolver);
  left.Accept(visitor);
}

}  // namespace Por::Util::BinaryValueOperation
