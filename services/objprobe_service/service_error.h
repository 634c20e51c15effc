#pragma once

#include <cstdint>

#include "core/common/error.h"

// Failures of the service itself, which clients get as the result of a call. Those of the store and
// of patterns go to the client as they are.

namespace ObjProbeService {

inline constexpr std::uint32_t kUnreadableRequest = 0xFC0101;
inline constexpr std::uint32_t kUnknownMethod = 0xFC0102;
inline constexpr std::uint32_t kUnknownView = 0xFC0103;
inline constexpr std::uint32_t kUnknownTransmission = 0xFC0104;
inline constexpr std::uint32_t kUnknownChannel = 0xFC0105;
inline constexpr std::uint32_t kSecondTransmission = 0xFC0106;
inline constexpr std::uint32_t kTooManyViews = 0xFC0107;
inline constexpr std::uint32_t kReplyTooLarge = 0xFC0108;
inline constexpr std::uint32_t kUpdatesNotTaken = 0xFC0109;
// Of the data management layer.
inline constexpr std::uint32_t kViewClosing = 0xFC000B;     // the view or transmission has ended
inline constexpr std::uint32_t kAlreadyRunning = 0xFC000C;  // a second pull while one waits

// One of the above with its text.
Common::Error MakeServiceError(std::uint32_t code, const Common::LineTag& tag);
Common::Error MakeServiceError(std::uint32_t code, const Common::LineTag& tag,
                               const Common::Error& reason);

}  // namespace ObjProbeService
