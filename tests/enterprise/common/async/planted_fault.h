#pragma once

namespace Async {

// Faults that copies of the production sources hold, made by the build, to prove that the explorer
// finds such faults. Chosen by the `fault` of the atomics.
enum class PlantedFault {
  kNone,
  kOwnerStays,        // the thread that leaves the loop of a sequence stays its owner
  kFinishBeforeTick,  // a listener's wait is over before its tick
  kRowDropped,        // the change CANCELLING to CANCELLING_COMPLETED is refused
  kTellsFirst,        // the handler is told before the control is free
};

}  // namespace Async
