#include "core/common/time/time_format_icu.h"

#include <unicode/fieldpos.h>
#include <unicode/parsepos.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <limits>
#include <utility>

#include "core/common/time/calendar_source.h"

namespace Common {
namespace {

using icu::DateFormat;

constinit CalendarSource calendars([](const icu::Locale& locale, UErrorCode& status) {
  return std::make_unique<icu::GregorianCalendar>(locale, status);
});

void SetFields(icu::Calendar& calendar, const DateTime& value) {
  calendar.set(UCAL_YEAR, value.GetYear());
  calendar.set(UCAL_MONTH, value.GetMonth() - 1);
  calendar.set(UCAL_DATE, value.GetDay());
  calendar.set(UCAL_HOUR_OF_DAY, value.GetHour());
  calendar.set(UCAL_MINUTE, value.GetMinute());
  calendar.set(UCAL_SECOND, value.GetSecond());
}

int GetField(const icu::Calendar& calendar, UCalendarDateFields field) {
  UErrorCode status = U_ZERO_ERROR;
  const int value = calendar.get(field, status);
  return status == U_ZERO_ERROR ? value : 0;
}

bool HasFields(const icu::Calendar& calendar, const DateTime& value) {
  return GetField(calendar, UCAL_YEAR) == value.GetYear() &&
         GetField(calendar, UCAL_MONTH) == value.GetMonth() - 1 &&
         GetField(calendar, UCAL_DATE) == value.GetDay() &&
         GetField(calendar, UCAL_HOUR_OF_DAY) == value.GetHour() &&
         GetField(calendar, UCAL_MINUTE) == value.GetMinute() &&
         GetField(calendar, UCAL_SECOND) == value.GetSecond();
}

std::unique_ptr<icu::GregorianCalendar> MakeCalendar(const DateTime& value) {
  std::unique_ptr<icu::GregorianCalendar> calendar = calendars.Make();
  if (calendar == nullptr) return nullptr;
  SetFields(*calendar, value);
  // The calendar's zone may skip the hour when summer time begins, or a day when it changes the
  // side of the date line. A zone without jumps shows it.
  if (!HasFields(*calendar, value)) {
    calendar->setTimeZone(*icu::TimeZone::getGMT());
    SetFields(*calendar, value);
  }
  return calendar;
}

// What a text doesn't give.
const DateTime& GetEpoch() {
  static const DateTime epoch(DateTime::Kind::kUtc, 0, 0);
  return epoch;
}

DateFormat::EStyle GetIcuStyle(int style) {
  switch (style) {
    case 1:
      return DateFormat::kMedium;
    case 2:
      return DateFormat::kLong;
    case 3:
      return DateFormat::kFull;
    default:
      return DateFormat::kShort;
  }
}

std::unique_ptr<DateFormat> MakeFormat(int style, int what) {
  const DateFormat::EStyle icu_style = GetIcuStyle(style);
  const icu::Locale& locale = icu::Locale::getDefault();
  switch (what) {
    case 0:
      return std::unique_ptr<DateFormat>(DateFormat::createDateInstance(icu_style, locale));
    case 1:
      return std::unique_ptr<DateFormat>(DateFormat::createTimeInstance(icu_style, locale));
    default:
      return std::unique_ptr<DateFormat>(
          DateFormat::createDateTimeInstance(icu_style, DateFormat::kMedium, locale));
  }
}

}  // namespace

std::unique_ptr<TimeFormat> TimeFormatIcu::Create(int style, int what) {
  return std::make_unique<TimeFormatIcu>(MakeFormat(style, what));
}

TimeFormatIcu::TimeFormatIcu(std::unique_ptr<icu::DateFormat> format)
    : format_(std::move(format)) {}

TimeFormatIcu::~TimeFormatIcu() = default;

std::uint32_t TimeFormatIcu::Format(const DateTime& value, String& out) {
  out.clear();
  if (!value.IsValid() || format_ == nullptr) return 0;
  const std::unique_ptr<icu::GregorianCalendar> calendar = MakeCalendar(value);
  if (calendar == nullptr) return 0;
  icu::UnicodeString text;
  icu::FieldPosition position(icu::FieldPosition::DONT_CARE);
  format_->format(*calendar, text, position);
  if (text.isBogus()) return 0;
  out.assign(text.getBuffer(), static_cast<std::size_t>(text.length()));
  return static_cast<std::uint32_t>(out.size());
}

int TimeFormatIcu::Parse(const String& text, DateTime& out) {
  out = DateTime();
  if (format_ == nullptr || text.size() > std::numeric_limits<std::int32_t>::max()) return -1;
  const std::unique_ptr<icu::GregorianCalendar> calendar = MakeCalendar(GetEpoch());
  if (calendar == nullptr) return -1;
  icu::ParsePosition position(0);
  format_->parse(icu::UnicodeString(false, text.data(), static_cast<std::int32_t>(text.size())),
                 *calendar, position);
  if (position.getIndex() == 0) return -1;
  const int second = GetField(*calendar, UCAL_SECOND);
  const int minute = GetField(*calendar, UCAL_MINUTE);
  const int hour = GetField(*calendar, UCAL_HOUR_OF_DAY);
  const int day = GetField(*calendar, UCAL_DATE);
  const int month = GetField(*calendar, UCAL_MONTH) + 1;
  const int year = GetField(*calendar, UCAL_YEAR);
  out = DateTime(year, month, day, hour, minute, second, 0, -1);
  return out.IsValid() ? 0 : -1;
}

}  // namespace Common
