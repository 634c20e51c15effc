#include "core/common/time/time_format.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/common/time/time_format_icu.h"
#include "tests/core/common/time/time_test_support.h"
#include "tests/support/run_program.h"

namespace {

using Common::DateTime;
using Common::String;
using Common::TimeFormat;

String Format(int style, int what, const DateTime& value) {
  String out = u"old";
  const std::uint32_t length = TimeFormat::Create(style, what)->Format(value, out);
  EXPECT_EQ(length, out.size());
  return out;
}

// 2020-12-31 17:06:07 in its own zone.
DateTime Evening(DateTime::Kind kind) {
  const std::int64_t utc = 1609434367;
  return kind == DateTime::Kind::kUtc ? DateTime(kind, utc, 999999999)
                                      : DateTime(2020, 12, 31, 17, 6, 7, 999999999, -1);
}

// The patterns are those of the locale data's publisher.
TEST(TimeFormat, StyleAndPartChooseTheWords) {
  const DefaultLocale locale("de_DE");
  const struct {
    int style;
    int what;
    const char16_t* expected;
  } cases[] = {
      {0, 2, u"31.12.20, 17:06:07"},
      {1, 2, u"31.12.2020, 17:06:07"},
      {3, 2, u"Donnerstag, 31. Dezember 2020 um 17:06:07"},
      {0, 0, u"31.12.20"},
      {3, 0, u"Donnerstag, 31. Dezember 2020"},
      {0, 1, u"17:06"},
      {2, 1, u"17:06:07 MEZ"},
  };
  for (const auto& row : cases) {
    for (const DateTime::Kind kind : {DateTime::Kind::kLocal, DateTime::Kind::kUtc}) {
      EXPECT_EQ(Format(row.style, row.what, Evening(kind)), row.expected)
          << row.style << " " << row.what;
    }
  }
}

TEST(TimeFormat, LocaleIsThatOfTheMomentOfCreate) {
  const DefaultLocale locale("en_US");
  const auto format = TimeFormat::Create(0, 2);
  const DefaultLocale later("de_DE");
  String out;
  EXPECT_EQ(format->Format(Evening(DateTime::Kind::kUtc), out), 20u);
  EXPECT_EQ(out, u"12/31/20, 5:06:07\u202FPM");
}

// The hour that local clocks skip exists elsewhere; Samoa had no 30 December 2011.
TEST(TimeFormat, ShowsFieldsAsTheyStandAlsoWhenTheZoneSkipsThem) {
  const DefaultLocale locale("de_DE");
  const auto format = [](std::int64_t seconds) {
    return Format(0, 2, DateTime(DateTime::Kind::kUtc, seconds, 0));
  };
  EXPECT_EQ(format(1616898600), u"28.03.21, 02:30:00");
  EXPECT_EQ(format(1616898600 + 3600), u"28.03.21, 03:30:00");
  const std::unique_ptr<icu::TimeZone> before(icu::TimeZone::createDefault());
  icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("Pacific/Apia"));
  EXPECT_EQ(format(1325203200), u"30.12.11, 00:00:00");
  EXPECT_EQ(format(1325289600), u"31.12.11, 00:00:00");
  icu::TimeZone::adoptDefault(before->clone());
}

TEST(TimeFormat, FailuresLeaveNoText) {
  EXPECT_EQ(Format(0, 2, DateTime()), u"");
  String out = u"old";
  DateTime value = Evening(DateTime::Kind::kLocal);
  Common::TimeFormatIcu broken(nullptr);
  EXPECT_EQ(broken.Format(value, out), 0u);
  EXPECT_EQ(out, u"");
  EXPECT_EQ(broken.Parse(u"31.12.20", value), -1);
  EXPECT_FALSE(value.IsValid());
  // What ICU makes of a year that its calendar doesn't reach is its own affair: this looks for a
  // crash, and that nothing old stays.
  EXPECT_NE(Format(0, 2, DateTime(DateTime::Kind::kUtc, 922337189107199, 0)), u"old");
}

TEST(TimeFormat, ParseReadsWhatIsThere) {
  const DefaultLocale locale("de_DE");
  const struct {
    int style;
    int what;
    const char16_t* text;
    const char16_t* expected;  // null: it fails
  } cases[] = {
      {0, 2, u"31.12.20, 17:06:07", u"31.12.2020, 17:06:07"},
      {2, 2, u"29. Februar 2000 um 00:00:01", u"29.02.2000, 00:00:01"},
      {1, 0, u"31.12.2020 and more", u"31.12.2020, 00:00:00"},
      {0, 1, u"17:06", u"01.01.1970, 17:06:00"},
      {1, 0, u"31.12.1600", nullptr},
      {0, 2, u"never", nullptr},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.text, row.text + String(row.text).size()));
    DateTime value(DateTime::Kind::kUtc, 0, 0);
    EXPECT_EQ(TimeFormat::Create(row.style, row.what)->Parse(row.text, value),
              row.expected != nullptr ? 0 : -1);
    EXPECT_EQ(value.GetKind(), DateTime::Kind::kLocal);
    if (row.expected != nullptr) {
      EXPECT_EQ(Format(1, 2, value), row.expected);
    } else {
      EXPECT_FALSE(value.IsValid());
    }
  }
}

TEST(TimeFormat, WithoutItsModuleNothingIsFormattedUntilItComesAndTheTraceTellsWhyOnce) {
  const std::string lone = TestSupport::RunProgram(LONE_PROGRAM, {"program"}).out;
  const std::string begin = "nothing -1 invalid\nnothing -1 invalid\n4 ";
  EXPECT_TRUE(lone.starts_with(begin)) << lone;
  EXPECT_NE(lone.find("lib/objprobe-time.so: cannot open"), std::string::npos) << lone;
  EXPECT_EQ(lone.find('\n', begin.size()), lone.size() - 1) << lone;
  EXPECT_EQ(TestSupport::RunProgram(PROGRAM, {"program", "first without files"}).out,
            "nothing -1 invalid\ntext 0 valid\n");
}

}  // namespace
