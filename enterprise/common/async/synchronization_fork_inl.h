#pragma once

#include <memory>
#include <new>

#include "core/common/trace.h"
#include "core/common/unix/trace.h"
#include "enterprise/common/async/metronome_inl.h"
#include "enterprise/common/async/service.h"
#include "enterprise/common/async/synchronization_fork.h"

namespace Async {

// The interval asked of the service's metronome source, which knows its unit.
inline constexpr unsigned int kForkInterval = 60;

template <class Atomics>
bool BasicSynchronizationFork<Atomics>::Invoke(Job*) {
  if (!IsForkNeeded()) return false;
  std::unique_ptr<Work> work;
  try {
    work = CreateWork();
    if (work == nullptr || ForkWork(work)) return false;
  } catch (const std::bad_alloc&) {
    // Nothing is forked. Whoever is about to wait must get to its wait.
    return false;
  }
  const Common::Error result = work->Execute();
  if (result.IsFailure()) Common::Trace(Common::kTraceDebug, result);
  return false;
}

template <class Atomics>
bool BasicSynchronizationFork<Atomics>::Tick() {
  CallCount.fetch_add(1);
  if (SuppressCount.load() > 0) return true;
  return Invoke(nullptr);
}

template <class Atomics>
void BasicSynchronizationFork<Atomics>::Arm() {
  Service* service = nullptr;
  GetAsyncService(&service);
  if (service == nullptr) return;
  Metronome* metronome = nullptr;
  try {
    metronome = service->GetMetronomeSource()->GetMetronome(kForkInterval);
  } catch (const std::bad_alloc&) {
    return;  // no metronome to be had: the loop stays with its thread
  }
  this->Start(metronome);
}

}  // namespace Async
