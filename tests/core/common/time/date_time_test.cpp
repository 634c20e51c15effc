#include "core/common/time/date_time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "tests/core/common/time/time_test_support.h"
#include "tests/support/trace_recorder.h"

namespace {

using Common::DateTime;
using Kind = DateTime::Kind;

constexpr std::int64_t kFirst = -11644473600;
constexpr std::int64_t kLast = 922337189107199;
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kGreatest = std::numeric_limits<std::int64_t>::max();
constexpr int kLeastInt = std::numeric_limits<int>::min();
constexpr int kGreatestInt = std::numeric_limits<int>::max();

std::string Show(const DateTime& value) {
  if (!value.IsValid()) return "invalid";
  char text[100];
  std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d.%09u", value.GetYear(),
                value.GetMonth(), value.GetDay(), value.GetHour(), value.GetMinute(),
                value.GetSecond(), value.GetNanoseconds());
  return text;
}

DateTime Utc(std::int64_t seconds, std::uint32_t nanoseconds = 0) {
  return DateTime(Kind::kUtc, seconds, nanoseconds);
}

void ExpectInvalid(const DateTime& value, Kind kind) {
  EXPECT_FALSE(value.IsValid());
  EXPECT_EQ(value.GetUnixSeconds(), kLeast);
  EXPECT_EQ(value.GetNanoseconds(), 0u);
  EXPECT_EQ(value.GetKind(), kind);
  const std::tm& fields = value.GetFields();
  for (const int field :
       {fields.tm_year, fields.tm_mon, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
        fields.tm_wday, fields.tm_yday, fields.tm_isdst}) {
    EXPECT_EQ(field, 0);
  }
}

// Seconds and fields by Python's datetime and by date(1).
TEST(DateTime, FieldsFollowFromSeconds) {
  const struct {
    std::int64_t seconds;
    const char* expected;
    int day_of_year;
    int day_of_week;
  } cases[] = {
      {kFirst, "1601-01-01 00:00:00.000000000", 0, 1},
      {-1, "1969-12-31 23:59:59.000000000", 364, 3},
      {951786123, "2000-02-29 01:02:03.000000000", 59, 2},
      {259200000000000, "8215691-01-08 00:00:00.000000000", 7, 1},
      {kLast, "29229671-12-31 23:59:59.000000000", 364, 4},
  };
  for (const auto& row : cases) {
    DateTime value = Utc(row.seconds);
    EXPECT_EQ(Show(value), row.expected);
    EXPECT_EQ(value.GetFields().tm_yday, row.day_of_year) << row.expected;
    EXPECT_EQ(value.GetFields().tm_wday, row.day_of_week) << row.expected;
    value.Recompute();
    EXPECT_EQ(value.GetUnixSeconds(), row.seconds) << row.expected;
    EXPECT_EQ(Show(value), row.expected);
  }
}

TEST(DateTime, RangeIsBounded) {
  for (const std::int64_t seconds : {kFirst - 1, kLast + 1, kLeast, kGreatest}) {
    ExpectInvalid(Utc(seconds), Kind::kUtc);
  }
  ExpectInvalid(Utc(0, 1000000000), Kind::kUtc);
  ExpectInvalid(DateTime(), Kind::kLocal);

  DateTime value = Utc(kFirst);
  value.AddSeconds(-1);
  ExpectInvalid(value, Kind::kUtc);
  value = Utc(kLast, 999999999);
  value.AddNanoseconds(1, false);
  ExpectInvalid(value, Kind::kUtc);
  value = Utc(kFirst);
  value.AddDays((kLast - kFirst) / 86400, 0);
  EXPECT_EQ(Show(value), "29229671-12-31 00:00:00.000000000");
  value.AddDays(1, 0);
  ExpectInvalid(value, Kind::kUtc);
}

// An addition, for tables.
using Add = void (*)(DateTime& value, std::int64_t amount);
constexpr Add kDays = [](DateTime& value, std::int64_t amount) { value.AddDays(amount, -1); };
constexpr Add kHours = [](DateTime& value, std::int64_t amount) { value.AddHours(amount); };
constexpr Add kMinutes = [](DateTime& value, std::int64_t amount) { value.AddMinutes(amount); };
constexpr Add kSeconds = [](DateTime& value, std::int64_t amount) { value.AddSeconds(amount); };
constexpr Add kNanoseconds = [](DateTime& value, std::int64_t amount) {
  value.AddNanoseconds(amount, true);
};

TEST(DateTime, AddingCarriesBothWays) {
  constexpr std::int64_t kLeap = 1582848000;   // 2020-02-28
  constexpr std::int64_t kPlain = 1614470400;  // 2021-02-28
  constexpr std::int64_t kMay = 1588291200;    // 2020-05-01
  const struct {
    std::int64_t start;
    Add add;
    std::int64_t amount;
    const char* expected;
  } cases[] = {
      {kLeap, kDays, 1, "2020-02-29 00:00:00.000000000"},
      {kPlain, kDays, 1, "2021-03-01 00:00:00.000000000"},
      {kMay, kDays, -122, "2019-12-31 00:00:00.000000000"},
      {kMay, kHours, 49, "2020-05-03 01:00:00.000000000"},
      {kMay, kMinutes, -1, "2020-04-30 23:59:00.000000000"},
      {kMay, kSeconds, -1, "2020-04-30 23:59:59.000000000"},
      {kMay, kNanoseconds, -1, "2020-04-30 23:59:59.999999999"},
      {kMay, kNanoseconds, 1999999999, "2020-05-01 00:00:01.999999999"},
  };
  for (const auto& row : cases) {
    DateTime value = Utc(row.start);
    row.add(value, row.amount);
    EXPECT_EQ(Show(value), row.expected);
  }
}

TEST(DateTime, NoAmountOverflows) {
  for (const std::int64_t amount : {kLeast, kLeast + 1, kGreatest - 1, kGreatest}) {
    for (const Add add : {kDays, kHours, kMinutes, kSeconds}) {
      DateTime value = Utc(86399, 999999999);
      add(value, amount);
      ExpectInvalid(value, Kind::kUtc);
    }
  }
  // 292 years are well inside the range.
  DateTime value = Utc(0, 999999999);
  value.AddNanoseconds(kGreatest, false);
  EXPECT_EQ(Show(value), "2262-04-11 23:47:17.854775806");
  value = Utc(0);
  value.AddNanoseconds(kLeast, false);
  EXPECT_EQ(Show(value), "1677-09-21 00:12:43.145224192");
}

// Amounts that don't fit a day of the month, judged by the C library's own calendar.
TEST(DateTime, AddsDaysBeyondTheFieldsOfTheCLibrary) {
  constexpr std::int64_t kDay = 86400;
  constexpr std::int64_t kCycle = 146097;
  const auto check = [](std::int64_t start, std::int64_t days) {
    DateTime value = Utc(start, 7);
    value.AddDays(days, 0);
    const DateTime expected = Utc(start + days * kDay, 7);
    ASSERT_TRUE(expected.IsValid());
    ASSERT_EQ(Show(value), Show(expected)) << days;
    ASSERT_EQ(value.GetUnixSeconds(), expected.GetUnixSeconds()) << days;
    ASSERT_EQ(value.GetFields().tm_yday, expected.GetFields().tm_yday) << days;
  };
  const std::int64_t beyond = std::int64_t{kGreatestInt} + 1;
  for (std::int64_t i = 0; i < 1500; ++i) check(45296, beyond + i * 97);
  for (std::int64_t cycle = 0; cycle < 50000; cycle += 4999) {
    // Around the ends of cycles of 400 years, and of centuries and four years within.
    const std::int64_t turn = (beyond / kCycle + 1 + cycle) * kCycle - 134774;
    for (const std::int64_t part : {0, 366, 1461, 36524, 73048, 109572}) {
      for (std::int64_t i = -367; i <= 367; i += i == -3 || i == 1 ? 1 : 2)
        check(1, turn + part + i);
    }
  }
  for (std::int64_t i = 0; i < 1500; ++i) check(kLast - 12345, -beyond - 40 - i * 97);
  check(0, kLast / kDay);
  check(kLast, -(kLast - kFirst) / kDay);
}

TEST(DateTime, ConstructionFromFieldsCarriesEveryField) {
  EXPECT_EQ(Show(DateTime(2020, 13, 5, 1, 2, 3, 4, -1)), "2021-01-05 01:02:03.000000004");
  EXPECT_EQ(Show(DateTime(2020, 0, 5, 1, 2, 3, 4, -1)), "2019-12-05 01:02:03.000000004");
  EXPECT_EQ(Show(DateTime(2020, 1, 0, 24, -1, 120, -1, -1)), "2020-01-01 00:00:59.999999999");
  EXPECT_EQ(Show(DateTime(2000, 1, 60, 12, 0, 0, 0, -1)), "2000-02-29 12:00:00.000000000");
  EXPECT_EQ(DateTime(1970, 1, 1, 1, 0, 0, 0, -1).GetUnixSeconds(), 0);
  for (const int year : {kLeastInt, -2147481748, 0, 1000, 29230000, kGreatestInt}) {
    for (const int other : {kLeastInt, 0, 1, kGreatestInt}) {
      for (const std::int64_t nanoseconds : {kLeast, std::int64_t{0}, kGreatest}) {
        const DateTime value(year, other, other, other, other, other, nanoseconds, -1);
        EXPECT_EQ(Show(value), "invalid") << year << " " << other;
      }
    }
  }
  // The years of too large months may bring a value back.
  EXPECT_EQ(Show(DateTime(2020 + 178956970, kLeastInt + 8 + 1, 1, 0, 0, 0, 0, -1)),
            "2020-01-01 00:00:00.000000000");
}

TEST(DateTime, LocalValuesFollowTheZone) {
  // 2021-03-28 01:30 CET, half an hour before summer time begins.
  DateTime value(2021, 3, 28, 1, 30, 0, 0, -1);
  EXPECT_EQ(value.GetUnixSeconds(), 1616891400);
  value.AddHours(1);
  EXPECT_EQ(value.GetUnixSeconds(), 1616891400 + 3600);
  EXPECT_EQ(Show(value), "2021-03-28 03:30:00.000000000");

  // The same time of the day, 23 hours later.
  value = DateTime(2021, 3, 27, 12, 0, 0, 0, -1);
  const std::int64_t before = value.GetUnixSeconds();
  value.AddDays(1, -1);
  EXPECT_EQ(Show(value), "2021-03-28 12:00:00.000000000");
  EXPECT_EQ(value.GetUnixSeconds(), before + 23 * 3600);

  // The hour that comes twice, told apart by isdst.
  EXPECT_EQ(DateTime(2021, 10, 31, 2, 30, 0, 0, 1).GetUnixSeconds(), 1635640200);
  EXPECT_EQ(DateTime(2021, 10, 31, 2, 30, 0, 0, 0).GetUnixSeconds(), 1635643800);

  EXPECT_EQ(Show(DateTime(Kind::kLocal, 0, 5)), "1970-01-01 01:00:00.000000005");
  // The range counts UTC seconds, whatever the fields.
  EXPECT_EQ(Show(DateTime(Kind::kLocal, kLast, 0)), "29229672-01-01 00:59:59.000000000");
}

TEST(DateTime, InvalidValuesStayInvalidAndTheirGettersAssert) {
  for (const Kind kind : {Kind::kLocal, Kind::kUtc}) {
    DateTime value(kind, kLeast, 0);
    for (const Add add : {kDays, kHours, kMinutes, kSeconds, kNanoseconds}) add(value, 100);
    value.Recompute(-1);
    value.Recompute();
    ExpectInvalid(value, kind);
  }
  const TestSupport::TraceRecorder traces(Common::kTraceCritical);
  const DateTime value;
  EXPECT_EQ(value.GetSecond() + value.GetMinute() + value.GetHour() + value.GetDay(), 0);
  EXPECT_EQ(value.GetMonth(), 1);
  EXPECT_EQ(value.GetYear(), 1900);
  EXPECT_EQ(traces.Assertions(), std::vector<std::string>(6, "IsValid()"));
}

TEST(DateTime, NowIsLocalAndInMilliseconds) {
  const auto now = [](int (*get_time_of_day)(timeval*), std::time_t (*get_time)()) {
    return DateTime::Now(DateTime::Clock{get_time_of_day, get_time});
  };
  const auto fails = [](timeval*) { return -1; };
  const auto never = []() -> std::time_t {
    ADD_FAILURE();
    return 0;
  };
  DateTime value = now(
      [](timeval* time) {
        *time = {1582848000, 123999};
        return 0;
      },
      never);
  EXPECT_EQ(Show(value), "2020-02-28 01:00:00.123000000");
  EXPECT_EQ(value.GetKind(), Kind::kLocal);
  value = now(fails, []() -> std::time_t { return 1582848000; });
  EXPECT_EQ(Show(value), "2020-02-28 01:00:00.000000000");
  ExpectInvalid(now(fails, []() -> std::time_t { return -1; }), Kind::kLocal);
  EXPECT_NEAR(static_cast<double>(DateTime::Now().GetUnixSeconds() - std::time(nullptr)), 0, 60);
}

}  // namespace
