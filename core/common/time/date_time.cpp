#include "core/common/time/date_time.h"

#include <algorithm>
#include <limits>

#include "core/common/unix/safe_assert.h"

namespace Common {
namespace {

// 1601-01-01 00:00:00 before 1970-01-01, and the number of valid seconds from there on.
constexpr std::int64_t kFirstSecond = 11644473600;
constexpr std::uint64_t kSecondsInRange = 922348833580800;

// Days since 1970-01-01 that Normalize takes. 1601-01-01 is day -134774; a day on either side
// lets the zone of a local value bring it into the range.
constexpr std::int64_t kFirstYear = 1601;
constexpr std::int64_t kDaysSinceFirstYear = 134774;
constexpr std::int64_t kLeastDay = -134775;
constexpr std::int64_t kGreatestDay = 10675198948;

constexpr std::int64_t kDaysIn400Years = 146097;
constexpr std::int64_t kDaysIn100Years = 36524;
constexpr std::int64_t kDaysIn4Years = 1461;
constexpr std::int64_t kDaysInYear = 365;

constexpr std::int64_t kNanosecondsInSecond = 1000000000;

bool IsInRange(std::int64_t seconds) {
  return static_cast<std::uint64_t>(seconds) + static_cast<std::uint64_t>(kFirstSecond) <
         kSecondsInRange;
}

struct Division {
  std::int64_t quotient;
  std::int64_t remainder;  // from 0
};

constexpr Division FloorDivide(std::int64_t number, std::int64_t divisor) {
  const Division division{number / divisor, number % divisor};
  if (division.remainder >= 0) return division;
  return {division.quotient - 1, division.remainder + divisor};
}

// Adds to a field with a carry into the next larger unit. The two are divided one by one, so
// that no sum overflows.
template <class Field>
std::int64_t AddWithCarry(Field& field, std::int64_t amount, std::int64_t units) {
  const Division whole = FloorDivide(amount, units);
  const Division part = FloorDivide(field + whole.remainder, units);
  field = static_cast<Field>(part.remainder);
  return whole.quotient + part.quotient;
}

constexpr bool IsLeapYear(std::int64_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

constexpr std::int64_t DaysBeforeYear(std::int64_t year) {
  const std::int64_t years = year - kFirstYear;
  return years * kDaysInYear + FloorDivide(years, 4).quotient - FloorDivide(years, 100).quotient +
         FloorDivide(years, 400).quotient - kDaysSinceFirstYear;
}
static_assert(DaysBeforeYear(1970) == 0);

std::int64_t DaysBeforeMonth(int month, bool is_leap_year) {
  constexpr int kDays[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  return kDays[month] + (is_leap_year && month > 1 ? 1 : 0);
}

int GetSystemTimeOfDay(timeval* now) {
  return gettimeofday(now, nullptr);
}
std::time_t GetSystemTime() {
  return std::time(nullptr);
}

}  // namespace

DateTime::DateTime(Kind kind, std::int64_t seconds, std::uint32_t nanoseconds) noexcept
    : seconds_(seconds), nanoseconds_(nanoseconds), kind_(kind) {
  if (!IsInRange(seconds) || nanoseconds >= kNanosecondsInSecond || !FieldsFromSeconds()) {
    Invalidate();
  }
}

DateTime::DateTime(int year, int month, int day, int hour, int minute, int second,
                   std::int64_t nanoseconds, int isdst) noexcept
    : seconds_(0) {
  const Division months = FloorDivide(std::int64_t{month} - 1, 12);
  const std::int64_t field = std::int64_t{year} - 1900 + months.quotient;
  if (field < std::numeric_limits<int>::min() || field > std::numeric_limits<int>::max()) {
    Invalidate();
    return;
  }
  fields_.tm_year = static_cast<int>(field);
  fields_.tm_mon = static_cast<int>(months.remainder);
  fields_.tm_mday = day;
  fields_.tm_hour = hour;
  fields_.tm_min = minute;
  fields_.tm_sec = second;
  fields_.tm_isdst = isdst;
  AddNanoseconds(nanoseconds, true);
}

DateTime DateTime::Now() noexcept {
  return Now(Clock{&GetSystemTimeOfDay, &GetSystemTime});
}

DateTime DateTime::Now(const Clock& clock) noexcept {
  timeval now{};
  if (clock.get_time_of_day(&now) == 0) {
    return DateTime(Kind::kLocal, now.tv_sec,
                    static_cast<std::uint32_t>(now.tv_usec / 1000 * 1000000));
  }
  const std::time_t seconds = clock.get_time();
  return seconds != -1 ? DateTime(Kind::kLocal, seconds, 0) : DateTime();
}

void DateTime::AddDays(std::int64_t days, int isdst) noexcept {
  if (!IsValid()) return;
  int day;
  if (!__builtin_add_overflow(fields_.tm_mday, days, &day)) {
    fields_.tm_mday = day;
  } else if (!Normalize(days)) {
    Invalidate();
    return;
  }
  Recompute(isdst);
}

void DateTime::AddHours(std::int64_t hours) noexcept {
  if (!IsValid()) return;
  const std::int64_t carry = AddWithCarry(fields_.tm_hour, hours, 24);
  if (carry != 0) {
    AddDays(carry, fields_.tm_isdst);
  } else {
    Recompute();
  }
}

void DateTime::AddMinutes(std::int64_t minutes) noexcept {
  if (!IsValid()) return;
  const std::int64_t carry = AddWithCarry(fields_.tm_min, minutes, 60);
  if (carry != 0) {
    AddHours(carry);
  } else {
    Recompute();
  }
}

void DateTime::AddSeconds(std::int64_t seconds) noexcept {
  if (!IsValid()) return;
  const std::int64_t carry = AddWithCarry(fields_.tm_sec, seconds, 60);
  if (carry != 0) {
    AddMinutes(carry);
  } else {
    Recompute();
  }
}

void DateTime::AddNanoseconds(std::int64_t nanoseconds, bool recompute) noexcept {
  if (!IsValid()) return;
  const std::int64_t carry = AddWithCarry(nanoseconds_, nanoseconds, kNanosecondsInSecond);
  if (carry != 0) {
    AddSeconds(carry);
  } else if (recompute) {
    Recompute();
  }
}

void DateTime::Recompute(int isdst) noexcept {
  if (!IsValid()) return;
  fields_.tm_isdst = isdst;
  fields_.tm_wday = -1;
  fields_.tm_yday = -1;
  if (!SecondsFromFields()) {
    const int year = fields_.tm_year;
    if (!Normalize(0) || fields_.tm_year == year || !SecondsFromFields()) {
      Invalidate();
      return;
    }
  }
  if (!IsInRange(seconds_)) Invalidate();
}

int DateTime::GetSecond() const noexcept {
  SAFE_ASSERT(IsValid());
  return fields_.tm_sec;
}

int DateTime::GetMinute() const noexcept {
  SAFE_ASSERT(IsValid());
  return fields_.tm_min;
}

int DateTime::GetHour() const noexcept {
  SAFE_ASSERT(IsValid());
  return fields_.tm_hour;
}

int DateTime::GetDay() const noexcept {
  SAFE_ASSERT(IsValid());
  return fields_.tm_mday;
}

int DateTime::GetMonth() const noexcept {
  SAFE_ASSERT(IsValid());
  return fields_.tm_mon + 1;
}

int DateTime::GetYear() const noexcept {
  SAFE_ASSERT(IsValid());
  return fields_.tm_year + 1900;
}

void DateTime::Invalidate() noexcept {
  fields_ = {};
  seconds_ = kInvalid;
  nanoseconds_ = 0;
}

bool DateTime::FieldsFromSeconds() noexcept {
  const std::time_t seconds = seconds_;
  return (kind_ == Kind::kUtc ? gmtime_r(&seconds, &fields_) : localtime_r(&seconds, &fields_)) !=
         nullptr;
}

bool DateTime::SecondsFromFields() noexcept {
  seconds_ = kind_ == Kind::kUtc ? timegm(&fields_) : mktime(&fields_);
  // -1 is also the second before 1970; then the day of the week has been found.
  return seconds_ != -1 || fields_.tm_wday != -1;
}

// Carries field values that are too large for the C library. The month becomes January and the day
// of the month that of the year: the C library carries it on. False if the day is out of bounds.
bool DateTime::Normalize(std::int64_t add_days) noexcept {
  std::tm& tm = fields_;
  SAFE_ASSERT(tm.tm_mon >= 0 && tm.tm_mon < 12);
  if (tm.tm_mon < 0 || tm.tm_mon >= 12) return false;
  const std::int64_t year = std::int64_t{tm.tm_year} + 1900;
  const bool is_leap_year = IsLeapYear(year);

  std::int64_t day = tm.tm_mday - std::int64_t{1} + DaysBeforeMonth(tm.tm_mon, is_leap_year);
  if (__builtin_add_overflow(day, add_days, &day)) return false;
  const Division seconds = FloorDivide(tm.tm_sec, 60);
  const Division minutes = FloorDivide(tm.tm_min + seconds.quotient, 60);
  const Division hours = FloorDivide(tm.tm_hour + minutes.quotient, 24);
  tm.tm_sec = static_cast<int>(seconds.remainder);
  tm.tm_min = static_cast<int>(minutes.remainder);
  tm.tm_hour = static_cast<int>(hours.remainder);
  if (__builtin_add_overflow(day, hours.quotient, &day)) return false;

  if (day < 0 || day >= kDaysInYear + (is_leap_year ? 1 : 0)) {
    if (__builtin_add_overflow(day, DaysBeforeYear(year), &day)) return false;
    if (day < kLeastDay || day > kGreatestDay) return false;
    // The last year of 100 and the last year of 4 may be a day longer than the others.
    const Division in400 = FloorDivide(day + kDaysSinceFirstYear, kDaysIn400Years);
    const std::int64_t centuries = std::min<std::int64_t>(in400.remainder / kDaysIn100Years, 3);
    const std::int64_t in100 = in400.remainder - centuries * kDaysIn100Years;
    const std::int64_t in4 = in100 % kDaysIn4Years;
    const std::int64_t years = std::min<std::int64_t>(in4 / kDaysInYear, 3);
    tm.tm_year = static_cast<int>(kFirstYear - 1900 + in400.quotient * 400 + centuries * 100 +
                                  in100 / kDaysIn4Years * 4 + years);
    day = in4 - years * kDaysInYear;
  }
  tm.tm_yday = static_cast<int>(day);
  tm.tm_mday = static_cast<int>(day) + 1;
  tm.tm_mon = 0;
  return true;
}

}  // namespace Common
