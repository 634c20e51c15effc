#pragma once

#include <memory>
#include <utility>

#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"

namespace Async {

// For actions that carry nothing beside their functor.
struct EmptyData {};

namespace Detail {

// Holds a functor and a value that lives as long as the action.
template <class Functor, class Data>
class BaseActionAdaptor : public Action {
 protected:
  BaseActionAdaptor(Functor functor, Data data)
      : data_(std::move(data)), functor_(std::move(functor)) {}

  [[no_unique_address]] Data data_;  // outlives the functor, which may refer to it
  Functor functor_;
};

// An action that calls its functor with the handler.
template <class Functor, class Data>
class ActionAdaptor : public BaseActionAdaptor<Functor, Data> {
 public:
  explicit ActionAdaptor(Functor functor, Data data = Data())
      : BaseActionAdaptor<Functor, Data>(std::move(functor), std::move(data)) {}

  std::shared_ptr<Job> Perform(ActionHandler& handler) override { return this->functor_(handler); }
};

}  // namespace Detail

// The same for a temporary action on the stack.
//
//   control.Run(ActionRefAdaptor([&](ActionHandler& handler) { ... }) ...
template <class Functor>
class ActionRefAdaptor : public Action {
 public:
  explicit ActionRefAdaptor(Functor functor) : functor_(std::move(functor)) {}

  std::shared_ptr<Job> Perform(ActionHandler& handler) override { return functor_(handler); }

 private:
  Functor functor_;
};

// Makes an action of a functor that takes an ActionHandler& and returns a job, which may be null.
template <class Functor, class Data = EmptyData>
std::unique_ptr<Action> MakeAction(Functor functor, Data data = Data()) {
  return std::make_unique<Detail::ActionAdaptor<Functor, Data>>(std::move(functor),
                                                                std::move(data));
}

}  // namespace Async
