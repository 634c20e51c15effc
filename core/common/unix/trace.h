#pragma once

#include <cstdint>

namespace Common {

// Trace levels.
inline constexpr unsigned int kTraceDebug = 1;
inline constexpr unsigned int kTraceInformation = 2;
inline constexpr unsigned int kTraceWarning = 3;
inline constexpr unsigned int kTraceError = 4;
inline constexpr unsigned int kTraceCritical = 5;

// Gets what is traced. Called on any thread, on several at once, holding no lock.
class TraceSink {
 public:
  // Lower levels don't reach the sink. Fixed while it is registered.
  virtual unsigned int GetLevel() const = 0;
  // What it throws passes through the functions below to whoever traces.
  virtual void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
                     const char* text) = 0;
  virtual void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
                     const char16_t* text) = 0;

  virtual ~TraceSink() = default;
};

// Sends a text to the sinks whose level allows it. A level below the threshold is dropped. Without
// a sink, as in the program itself, a call costs one load. A null text is an empty one.
// The form for a Common::Error is in core/common/trace.h.
void Trace(unsigned int level, std::uint32_t module, std::uint32_t code, const char* text);
void Trace(unsigned int level, std::uint32_t module, std::uint32_t code, const char16_t* text);

// Whether a trace of `level` reaches any sink: ask before making a costly text.
bool IsTraced(unsigned int level) noexcept;

// The process-wide threshold: lower levels are dropped. kTraceInformation at start.
unsigned int GetTraceThreshold() noexcept;
void SetTraceThreshold(unsigned int level) noexcept;

// Adds a borrowed sink. False if it is registered already or the registry, which has few places, is
// full.
bool RegisterTraceSink(TraceSink& sink) noexcept;
// Takes a sink out and waits until no thread is inside it, so that it can be destroyed; not to be
// called from inside that sink. Does nothing for a sink that isn't registered, or is no more: of two
// calls for one sink only the first one waits.
void UnregisterTraceSink(TraceSink& sink) noexcept;

}  // namespace Common
