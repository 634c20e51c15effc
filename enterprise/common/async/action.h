#pragma once

#include <memory>

#include "core/common/error.h"
#include "core/common/non_copyable.h"

namespace Async {

class Job;

// Told how a piece of work ended, exactly once for each Perform.
class ActionHandler : public Common::NonCopyable {
 public:
  virtual ~ActionHandler() = default;
  // Success is an error without a record or with code 0. May run on any thread, also inside the
  // call that started the work. Whoever calls it touches nothing of the work afterwards.
  virtual void Completed(Common::Error result) = 0;
};

// A thing that can be performed.
class Action : public Common::NonCopyable {
 public:
  virtual ~Action() = default;
  // Starts the work. `handler` is borrowed until it has been told, which may happen before Perform
  // returns. The job may be null: there is nothing left running to cancel. A Common::Error thrown
  // from here means that nothing was started and `handler` will not be told.
  virtual std::shared_ptr<Job> Perform(ActionHandler& handler) = 0;
};

}  // namespace Async
