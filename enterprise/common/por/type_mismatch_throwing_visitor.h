#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/types_mismatch.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/value_kind.h"
#include "enterprise/common/por/visitor.h"

// Visitors that accept one kind of value and throw a Common::Error (0xFA000A, not a ModuleError) at
// any other. A derived class overrides the Visit of the kind it accepts.

namespace Por::Util {

// Throws the mismatch of the expected index and the index of the visited value.
class TypeMismatchThrowingVisitor {
 public:
  explicit TypeMismatchThrowingVisitor(unsigned int expected) : expected_(expected) {}

  template <class Value>
  void operator()(const Value& value) const {
    Throw(Detail::IndexOfValue(value));
  }

 private:
  [[noreturn]] void Throw(unsigned int actual) const;

  unsigned int expected_;
};

}  // namespace Por::Util

namespace Por::View {

class TypeMismatchThrowingVisitor
    : public Detail::UnitVisitorAdaptor<Util::TypeMismatchThrowingVisitor> {
 public:
  explicit TypeMismatchThrowingVisitor(unsigned int expected)
      : UnitVisitorAdaptor(impl_), impl_(expected) {}

 private:
  Util::TypeMismatchThrowingVisitor impl_;
};

// What happens to the array is left to the derived class.
class ArrayVisitor : public TypeMismatchThrowingVisitor {
 public:
  using TypeMismatchThrowingVisitor::Visit;
  ArrayVisitor() : TypeMismatchThrowingVisitor(kArrayIndex) {}
  void Visit(const ArrayValue& value) override = 0;
};

// Runs the borrowed processor on the elements, in order, until it returns true.
class ForEachArrayElementVisitor final : public ArrayVisitor {
 public:
  using ArrayVisitor::Visit;
  explicit ForEachArrayElementVisitor(ItemProcessor<const Unit>& processor)
      : processor_(processor) {}
  void Visit(const ArrayValue& value) override { value.ForEach(processor_); }

 private:
  ItemProcessor<const Unit>& processor_;
};

}  // namespace Por::View

namespace Por::Construction {

class TypeMismatchThrowingVisitor
    : public Detail::UnitVisitorAdaptor<Util::TypeMismatchThrowingVisitor> {
 public:
  explicit TypeMismatchThrowingVisitor(unsigned int expected)
      : UnitVisitorAdaptor(impl_), impl_(expected) {}

 private:
  Util::TypeMismatchThrowingVisitor impl_;
};

// An array is accepted and left alone.
class ArrayVisitor : public TypeMismatchThrowingVisitor {
 public:
  using TypeMismatchThrowingVisitor::Visit;
  ArrayVisitor() : TypeMismatchThrowingVisitor(kArrayIndex) {}
  void Visit(ArrayValue&) override {}
};

// A composite is accepted and left alone.
class CompositeVisitor : public TypeMismatchThrowingVisitor {
 public:
  using TypeMismatchThrowingVisitor::Visit;
  CompositeVisitor() : TypeMismatchThrowingVisitor(kCompositeIndex) {}
  void Visit(CompositeValue&) override {}
};

}  // namespace Por::Construction

namespace Por::Util {

// Runs the processor on the elements of an array, in order, until it returns true. Throws
// Common::Error 0xFA000A when `unit` is no array.
void ForEachArrayElement(const View::Unit& unit, ItemProcessor<const View::Unit>& processor);

}  // namespace Por::Util
