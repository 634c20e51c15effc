#pragma once

#include <memory>
#include <utility>

namespace Por {

// Walks the properties of a composite. A value of four parts: a shared state and three functions on
// it. Copies share the state, so a copy walks on the same position.
// `Item` is Por::View::Property const or Por::Construction::Property.
template <class Item>
class PropertyIterator {
 public:
  using CurrentFunction = Item& (*)(void* state);
  using AdvanceFunction = void (*)(void* state);
  using IsValidFunction = bool (*)(const void* state);

  PropertyIterator(std::shared_ptr<void> state, CurrentFunction current, AdvanceFunction advance,
                   IsValidFunction is_valid)
      : state_(std::move(state)), current_(current), advance_(advance), is_valid_(is_valid) {}

  // Only while IsValid.
  Item& Current() const { return current_(state_.get()); }
  // Does nothing at the end.
  void Advance() { advance_(state_.get()); }
  bool IsValid() const { return is_valid_(state_.get()); }

 private:
  std::shared_ptr<void> state_;
  CurrentFunction current_;
  AdvanceFunction advance_;
  IsValidFunction is_valid_;
};

}  // namespace Por
