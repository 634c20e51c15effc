#pragma once

#include <memory>
#include <new>

#include "enterprise/common/async/job.h"
#include "enterprise/common/async/life_cycle_completion.h"

namespace Dml {

// `job` as a pointer that keeps `owned` alive too, also when there is no job to point to. When
// there is no memory for the pointer, kPointerTries times in a row, the job is cancelled and comes
// back as it is. A cancel doesn't wait for an end that another thread is telling, so what that
// still uses of `owned` has a share of its own in it: that of the job.
template <class Owned>
std::shared_ptr<Async::Job> KeepAlive(std::shared_ptr<Async::Job> job,
                                      const std::shared_ptr<Owned>& owned) {
  constexpr int kPointerTries = 8;
  if (owned == nullptr) return job;
  for (int i = 0; i < kPointerTries; ++i) {
    try {
      return Async::Detail::CompleteLifeCycle(job, owned);
    } catch (const std::bad_alloc&) {
      // The work is under way and its handler waits to be told: try again.
    }
  }
  // The caller's pointer doesn't keep `owned` alive as it should: the job must not go on.
  if (job != nullptr) job->Cancel();
  return job;
}

}  // namespace Dml
