#pragma once

#include <cstdint>

namespace Dml {

// Codes of subscriptions, requests and post offices; the messages are rows of the table.
inline constexpr std::uint32_t kViewClosingCode = 0xFC000B;     // MessageRow::DmlViewClosing
inline constexpr std::uint32_t kAlreadyRunningCode = 0xFC000C;  // MessageRow::DmlAlreadyRunning
inline constexpr std::uint32_t kDisposedObjectCode = 0xFC0017;  // MessageRow::DmlDisposedObject

}  // namespace Dml
