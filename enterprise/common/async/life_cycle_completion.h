#pragma once

#include <memory>
#include <utility>

namespace Async::Detail {

// Deleter of a std::shared_ptr<Object> that is handed out to a caller: the object and `owned`, a
// shared pointer, stay alive until the last copy of that pointer is gone. It only drops its own
// references, so it is harmless when std::shared_ptr calls it for lack of memory.
template <class Object, class Owned>
class LifeCycleCompletion {
 public:
  LifeCycleCompletion(std::shared_ptr<Object> object, Owned owned)
      : object_(std::move(object)), owned_(std::move(owned)) {}

  // The second pointer goes first: what it holds may still use the object.
  void operator()(Object*) noexcept {
    owned_.reset();
    object_.reset();
  }

 private:
  std::shared_ptr<Object> object_;
  Owned owned_;  // declared last: dropped first when the deleter was never called
};

// A pointer to `object` that keeps `owned` alive too. Throws std::bad_alloc, then both arguments
// are gone.
template <class Object, class Owned>
std::shared_ptr<Object> CompleteLifeCycle(std::shared_ptr<Object> object, Owned owned) {
  Object* const target = object.get();
  return std::shared_ptr<Object>(
      target, LifeCycleCompletion<Object, Owned>(std::move(object), std::move(owned)));
}

}  // namespace Async::Detail
