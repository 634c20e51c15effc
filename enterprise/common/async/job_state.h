#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace Async {

// The states of a JobControl. "Scheduled" is a cancel that has not reached a job yet.
//
//   what the state owns                                     left by
//   BEGIN                 nothing, or Perform in progress   Perform, Completed, Cancel
//   PERFORMED_WAIT_COMPLETED   the job runs                 Completed, Cancel
//   ..._WAIT_PERFORM           `result` is set              the thread of Run
//   CANCEL_DONE_WAIT_COMPLETED the job runs                 Completed
//   CANCEL_SCHEDULED_CANCELLING...  the thread of Run is inside Job::Cancel and leaves it
//   CANCELLING...                   one thread of Cancel is inside Job::Cancel and leaves it
//   FINISHING             one thread finishes the run       that thread, Cancel
enum JobState : std::uintptr_t {
  // Idle, or Perform is in progress and nothing has happened yet.
  STATE_BEGIN = 0,
  // Perform has returned; the job runs.
  STATE_PERFORMED_WAIT_COMPLETED = 1,
  // Completed has come; Perform has not returned yet.
  STATE_COMPLETED_WAIT_PERFORM = 2,
  // A cancel is pending and neither event has come, or it is left over for the next run.
  STATE_CANCEL_SCHEDULED_WAIT_ALL = 3,
  // The cancel has been delivered, or there was no job to deliver it to.
  STATE_CANCEL_DONE_WAIT_COMPLETED = 4,
  // A cancel is pending and Completed has come; Perform has not returned yet.
  STATE_CANCEL_SCHEDULED_WAIT_PERFORM = 5,
  // The thread of Perform is inside Job::Cancel.
  STATE_CANCEL_SCHEDULED_CANCELLING = 6,
  // The same, and Completed has come meanwhile.
  STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED = 7,
  // The thread of Cancel is inside Job::Cancel.
  STATE_CANCELLING = 8,
  // The same, and Completed has come meanwhile.
  STATE_CANCELLING_COMPLETED = 9,
  // One thread has won the right to finish the run.
  STATE_FINISHING = 10,
};

inline constexpr std::size_t kJobStateCount = 11;

struct JobTransition {
  JobState from;
  JobState to;
};

inline constexpr JobTransition kJobTransitions[] = {
    {STATE_BEGIN, STATE_PERFORMED_WAIT_COMPLETED},
    {STATE_BEGIN, STATE_COMPLETED_WAIT_PERFORM},
    {STATE_BEGIN, STATE_CANCEL_SCHEDULED_WAIT_ALL},
    {STATE_BEGIN, STATE_FINISHING},  // Perform has failed
    {STATE_PERFORMED_WAIT_COMPLETED, STATE_CANCELLING},
    {STATE_PERFORMED_WAIT_COMPLETED, STATE_FINISHING},
    {STATE_COMPLETED_WAIT_PERFORM, STATE_CANCEL_SCHEDULED_WAIT_PERFORM},
    {STATE_COMPLETED_WAIT_PERFORM, STATE_FINISHING},
    {STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_CANCEL_DONE_WAIT_COMPLETED},  // no job to cancel
    {STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_CANCEL_SCHEDULED_WAIT_PERFORM},
    {STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_CANCEL_SCHEDULED_CANCELLING},
    {STATE_CANCEL_SCHEDULED_WAIT_ALL, STATE_FINISHING},  // cancelled before Perform, or it failed
    // Into WAIT_ALL with the run over: the cancel was not honoured and meets the next run.
    {STATE_CANCEL_DONE_WAIT_COMPLETED, STATE_CANCEL_SCHEDULED_WAIT_ALL},
    {STATE_CANCEL_DONE_WAIT_COMPLETED, STATE_FINISHING},
    {STATE_CANCEL_SCHEDULED_WAIT_PERFORM, STATE_CANCEL_SCHEDULED_WAIT_ALL},
    {STATE_CANCEL_SCHEDULED_WAIT_PERFORM, STATE_FINISHING},  // Perform has failed
    {STATE_CANCEL_SCHEDULED_CANCELLING, STATE_CANCEL_DONE_WAIT_COMPLETED},
    {STATE_CANCEL_SCHEDULED_CANCELLING, STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED},
    {STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED, STATE_CANCEL_SCHEDULED_WAIT_ALL},
    {STATE_CANCEL_SCHEDULED_CANCELLING_COMPLETED, STATE_FINISHING},
    {STATE_CANCELLING, STATE_CANCEL_DONE_WAIT_COMPLETED},
    {STATE_CANCELLING, STATE_CANCELLING_COMPLETED},
    {STATE_CANCELLING_COMPLETED, STATE_CANCEL_SCHEDULED_WAIT_ALL},
    {STATE_CANCELLING_COMPLETED, STATE_FINISHING},
    {STATE_FINISHING, STATE_BEGIN},
    {STATE_FINISHING, STATE_CANCEL_SCHEDULED_WAIT_ALL},  // a cancel came too late for this run
};

// The set of allowed changes: bit `to` * 11 + `from`; bit n is bit n % 8 of byte n / 8.
class JobTransitionTable {
 public:
  template <std::size_t N>
  explicit constexpr JobTransitionTable(const JobTransition (&transitions)[N]) {
    for (const JobTransition& transition : transitions) {
      const std::size_t bit = Bit(transition.from, transition.to);
      bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] | (1U << (bit % 8)));
    }
  }

  constexpr bool Allows(JobState from, JobState to) const {
    const std::size_t bit = Bit(from, to);
    return ((static_cast<unsigned int>(bytes[bit / 8]) >> (bit % 8)) & 1U) != 0;
  }

  std::array<std::uint8_t, 16> bytes{};

 private:
  static constexpr std::size_t Bit(JobState from, JobState to) {
    return static_cast<std::size_t>(to) * kJobStateCount + static_cast<std::size_t>(from);
  }
};

inline constexpr JobTransitionTable kJobTransitionTable{kJobTransitions};
static_assert(kJobTransitionTable.bytes ==
              std::array<std::uint8_t, 16>{0x00, 0x0c, 0x40, 0x00, 0x62, 0x8d, 0x14, 0x06,  //
                                           0x20, 0x00, 0x08, 0x02, 0x00, 0xc8, 0xaf, 0x00});

}  // namespace Async
