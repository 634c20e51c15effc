#pragma once

#include "enterprise/common/por/value.h"

namespace Por {

template <class T>
class ScalarValueHolder final : public Construction::ScalarValue<T> {
 public:
  explicit ScalarValueHolder(T value) : value_(value) {}

  T Get() const override { return value_; }
  void Set(T value) override { value_ = value; }

 private:
  T value_;
};

}  // namespace Por
