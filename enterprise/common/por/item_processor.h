#pragma once

#include <type_traits>
#include <utility>

#include "core/common/non_copyable.h"

namespace Por {

// Gets each item of a walk.
template <class T>
class ItemProcessor : public Common::NonCopyable {
 public:
  virtual ~ItemProcessor() = default;
  // True stops the walk. `item` is valid until the tree around it is changed.
  virtual bool Process(T& item) = 0;
};

// An item processor around a callable of one argument. A callable that returns nothing never stops
// the walk. Lives on the stack and borrows nothing but the callable, which it holds by value.
template <class T, class Function>
class FunctionProcessor final : public ItemProcessor<T> {
 public:
  explicit FunctionProcessor(Function function) : function_(std::move(function)) {}
  bool Process(T& item) override {
    if constexpr (std::is_void_v<std::invoke_result_t<Function&, T&>>) {
      function_(item);
      return false;
    } else {
      return function_(item);
    }
  }

 private:
  Function function_;
};

template <class T, class Function>
FunctionProcessor<T, Function> MakeProcessor(Function function) {
  return FunctionProcessor<T, Function>(std::move(function));
}

}  // namespace Por
