#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

namespace Common {

// A point in time: seconds since 1970-01-01 00:00:00 UTC, kept in step with the broken-down fields
// of the value's own zone. A plain value.
//
// Valid values lie between 1601-01-01 00:00:00 and 29229671-12-31 23:59:59 UTC. Nothing throws: a
// result outside, or one that the C library can't compute, makes the value invalid. An invalid
// value keeps its kind, has all other fields zero, and stays invalid whatever is added to it.
//
// The operations that move a value take negative amounts too; no amount overflows. `isdst` is as
// in struct tm: 1 daylight saving time, 0 not, -1 let the system find out.
class DateTime {
 public:
  enum class Kind : std::uint32_t {
    kLocal = 1,  // the system's zone
    kUtc = 2,
  };

  // The system's functions behind Now, to be replaced in tests.
  struct Clock {
    int (*get_time_of_day)(timeval* now);
    std::time_t (*get_time)();
  };

  // An invalid value of local kind.
  DateTime() = default;
  // `nanoseconds` below 1000000000, else the value is invalid.
  DateTime(Kind kind, std::int64_t seconds, std::uint32_t nanoseconds) noexcept;
  // A local value. `month` counts from 1; every field may lie outside its range and is carried.
  DateTime(int year, int month, int day, int hour, int minute, int second, std::int64_t nanoseconds,
           int isdst) noexcept;

  // The current time as a local value, in whole milliseconds.
  static DateTime Now() noexcept;
  static DateTime Now(const Clock& clock) noexcept;

  void AddDays(std::int64_t days, int isdst) noexcept;
  void AddHours(std::int64_t hours) noexcept;
  void AddMinutes(std::int64_t minutes) noexcept;
  void AddSeconds(std::int64_t seconds) noexcept;
  // Without a carry into the seconds the other fields are recomputed only if `recompute` is set.
  void AddNanoseconds(std::int64_t nanoseconds, bool recompute) noexcept;

  // Sets the seconds from the fields and brings the fields into their ranges.
  void Recompute(int isdst) noexcept;
  void Recompute() noexcept { Recompute(fields_.tm_isdst); }

  bool IsValid() const noexcept { return seconds_ != kInvalid; }

  // Fields in the value's own zone. They assert that the value is valid and return the field.
  int GetSecond() const noexcept;
  int GetMinute() const noexcept;
  int GetHour() const noexcept;
  int GetDay() const noexcept;
  int GetMonth() const noexcept;  // from 1
  int GetYear() const noexcept;

  Kind GetKind() const noexcept { return kind_; }
  // Since 1970-01-01 00:00:00 UTC; the least number of the type for an invalid value.
  std::int64_t GetUnixSeconds() const noexcept { return seconds_; }
  std::uint32_t GetNanoseconds() const noexcept { return nanoseconds_; }
  const std::tm& GetFields() const noexcept { return fields_; }

 private:
  static constexpr std::int64_t kInvalid = INT64_MIN;

  void Invalidate() noexcept;
  // The C library's conversions of the value's kind. False on failure.
  bool FieldsFromSeconds() noexcept;
  bool SecondsFromFields() noexcept;
  bool Normalize(std::int64_t add_days) noexcept;

  std::tm fields_{};
  std::int64_t seconds_ = kInvalid;
  std::uint32_t nanoseconds_ = 0;
  Kind kind_ = Kind::kLocal;
};

}  // namespace Common
