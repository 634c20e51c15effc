#pragma once

#include <memory>
#include <utility>

#include "core/common/error.h"
#include "core/common/non_copyable.h"

namespace Async {

// A piece of plain work.
class Work : public Common::NonCopyable {
 public:
  virtual ~Work() = default;
  virtual Common::Error Execute() = 0;
};

// Calls a functor that returns nothing; always succeeds. The guard, mostly a std::shared_ptr<void>,
// is held for as long as the work lives.
template <class Functor, class Guard>
class SilentWorkAdaptor : public Work {
 public:
  SilentWorkAdaptor(Functor functor, Guard guard)
      : guard_(std::move(guard)), functor_(std::move(functor)) {}

  Common::Error Execute() override {
    functor_();
    return {};
  }

 private:
  Guard guard_;  // outlives the functor
  Functor functor_;
};

}  // namespace Async
