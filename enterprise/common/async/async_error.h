#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "core/common/error.h"
#include "core/common/message_table.h"

namespace Async {

// Codes of the framework's errors; their module is 0xF9.
inline constexpr std::uint32_t kInvalidResultCode = 0xf90001;  // a result between two runs
inline constexpr std::uint32_t kCanceledCode = 0xf90002;       // in the chain of a cancelled run
inline constexpr std::uint32_t kUnspecifiedCode = 0xf90003;
inline constexpr std::uint32_t kDescribedJobCode = 0xf90004;  // wraps a failure; text of Describe
inline constexpr std::uint32_t kExceptionCode = 0xf90006;
inline constexpr std::uint32_t kStdExceptionCode = 0xf90007;
inline constexpr std::uint32_t kUnknownExceptionCode = 0xf90008;
inline constexpr std::uint32_t kUnimportantCode = 0xf9000a;    // traced at the debug level only
inline constexpr std::uint32_t kStopSequenceCode = 0xf9000e;   // stops a sequence with success
inline constexpr std::uint32_t kStopRepeatingCode = 0xf9000f;  // stops a repeating one with success
inline constexpr std::uint32_t kNullHandlerCode = 0xf90015;

// An error that is made once and then shared. Constant-initialised, so static initialisers of any
// file may ask for it. The record is kept to the end of the process, since threads of libraries may
// still ask while the program exits. Threads: any.
class StaticError {
 public:
  constexpr explicit StaticError(std::uint32_t code) : code_(code) {}
  constexpr StaticError(std::uint32_t code, Common::MessageRow row) : code_(code), row_(row) {}
  StaticError(const StaticError&) = delete;
  StaticError& operator=(const StaticError&) = delete;

  // Made on first use. When memory is out it is the out-of-memory error, and the next call tries
  // again.
  Common::Error Get() noexcept;
  // Takes the message from the table now in force, once; done for all holders at start-up.
  void ResolveMessage() noexcept;

 private:
  const std::uint32_t code_;
  const std::optional<Common::MessageRow> row_;
  std::atomic<const char16_t*> message_{nullptr};
  std::atomic<Common::ErrorRecord*> record_{nullptr};  // one counted reference
};

extern StaticError invalid_result_error;  // "ASYNC: The operation result is invalid."
extern StaticError canceled_error;        // "ASYNC: The operation has been canceled."
extern StaticError unspecified_error;
extern StaticError unimportant_error;
extern StaticError stop_sequence_error;
extern StaticError stop_repeating_error;

}  // namespace Async
