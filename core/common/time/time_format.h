#pragma once

#include <cstdint>
#include <memory>

#include "core/common/string.h"
#include "core/common/time/date_time.h"

namespace Common {

// Turns points in time into words of the system's locale and back. One object serves one thread
// at a time.
class TimeFormat {
 public:
  // Never null. For the locale that is the system's now. The first call loads the module with ICU,
  // "../lib/objprobe-time.so" from the program's folder, which stays loaded. Without it this fails,
  // and so do the operations of what it gives; later calls try again, and each kind of failure is
  // traced once. Threads: any.
  // `style`: 1 medium, 2 long, 3 full, any other short.
  // `what`: 0 the date, 1 the time, any other the date in that style and the time in medium style.
  static std::unique_ptr<TimeFormat> Create(int style, int what);

  // Puts the words into `out` and returns their length in units. The fields are shown as they
  // stand, without regard to the zone. An invalid value, or a failure, gives an empty text and 0.
  virtual std::uint32_t Format(const DateTime& value, String& out) = 0;
  // Reads words from the beginning of `text` as a local value; what they don't give is
  // 1970-01-01 00:00:00. Returns 0, or -1 and an invalid value.
  virtual int Parse(const String& text, DateTime& out) = 0;

  virtual ~TimeFormat() = default;
};

}  // namespace Common
