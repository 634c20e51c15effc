#include "enterprise/common/por/type_mismatch_throwing_visitor.h"

namespace Por::Util {

void TypeMismatchThrowingVisitor::Throw(unsigned int actual) const {
  throw Detail::MakeTypeMismatchError(expected_, actual);
}

void ForEachArrayElement(const View::Unit& unit, ItemProcessor<const View::Unit>& processor) {
  View::ForEachArrayElementVisitor visitor(processor);
  unit.Accept(visitor);
}

}  // namespace Por::Util
