#pragma once

#include "enterprise/common/por/value.h"

namespace Por {

template <class T>
class ComplexValueHolder final : public Construction::ComplexValue<T> {
 public:
  explicit ComplexValueHolder(const T& value) : value_(value) {}

  const T& Get() const override { return value_; }
  void Set(const T& value) override { value_ = value; }

 private:
  T value_;
};

}  // namespace Por
