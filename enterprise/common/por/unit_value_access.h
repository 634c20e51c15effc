#pragma once

#include <type_traits>

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/types_mismatch.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/value_kind.h"
#include "enterprise/common/por/visitor.h"

// Typed reading and writing of a unit's value. `T` is the C++ type of a scalar or complex kind, and
// must be that of the value exactly: nothing is converted, widened or narrowed.

namespace Por::Util {

namespace TypeMismatchHandlers {

// Throws ModuleError 0xFA000A with the words of both kinds.
template <class T>
struct Throw {
  void operator()(T&, unsigned int actual) const {
    throw ModuleError(Detail::MakeTypeMismatchError(Detail::KindOf<T>::kIndex, actual));
  }
};

// The result becomes the caller's value, which is borrowed.
template <class T>
struct ReturnFailSafeValue {
  void operator()(T& result, unsigned int) const { result = fail_safe; }
  const T& fail_safe;
};

}  // namespace TypeMismatchHandlers

namespace Detail {

// Visitor that fills `result` from a value of kind `T`; any other goes to the handler.
template <class T, class Tag, class Handler>
class UnitValueGetter {
 public:
  UnitValueGetter(T& result, const Handler& handler) : result_(result), handler_(handler) {}

  void operator()(const typename Tag::template View<T>& value) { result_ = value.Get(); }
  template <class Value>
  void operator()(const Value& value) {
    handler_(result_, IndexOfValue(value));
  }

 private:
  T& result_;
  const Handler& handler_;
};

template <class T, class Handler>
T ReadValue(const View::Unit& unit, const Handler& handler) {
  T result{};
  UnitValueGetter<T, typename KindOf<T>::Tag, Handler> getter(result, handler);
  View::Detail::UnitVisitorAdaptor reader(getter);
  unit.Accept(reader);
  return result;
}

// Visitor that sets a value of kind `T`; `Face` is a reference to the value class it accepts.
template <class T, class Face>
class ValueSetter {
 public:
  explicit ValueSetter(const T& value) : value_(value) {}

  void operator()(Face value) { value.Set(value_); }
  template <class Value>
  void operator()(const Value&) {
    throw ModuleError(MakeTypeMismatchError());
  }

 private:
  const T& value_;
};

}  // namespace Detail

// The value. Throws ModuleError 0xFA000A, with the words of both kinds, when it is of another kind.
template <class T>
T GetValue(const View::Unit& unit) {
  return Detail::ReadValue<T>(unit, TypeMismatchHandlers::Throw<T>{});
}

// The value, or `fail_safe` when it is of another kind.
template <class T>
T GetValue(const View::Unit& unit, const std::type_identity_t<T>& fail_safe) {
  return Detail::ReadValue<T>(unit, TypeMismatchHandlers::ReturnFailSafeValue<T>{fail_safe});
}

// Sets the value. Throws ModuleError 0xFA000A when it is of another kind; the unit stays as it was.
template <class T>
void SetValue(Modification::Unit& unit, const std::type_identity_t<T>& value) {
  using Face = typename Detail::KindOf<T>::Tag::template Modification<T>&;
  Detail::ValueSetter<T, Face> setter(value);
  Modification::Detail::UnitVisitorAdaptor writer(setter);
  unit.Accept(writer);
}

}  // namespace Por::Util
