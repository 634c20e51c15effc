#pragma once

#include "enterprise/common/por/value.h"

namespace Por {

template <class T>
class ComplexValueHolder final : public Construction::ComplexValue<T> {
 public:
  ComplexValueHolder() : value_() {}
  explicit ComplexValueHolder(const T& value) : value_(value) {}

  const T& Get() const override { return value_; }
  void Set(const T& value) override { value_ = value; }

  // For whoever fills in the value in place.
  T& GetValue() { return value_; }

 private:
  T value_;
};

}  // namespace Por
