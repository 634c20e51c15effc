#pragma once

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <cstdlib>
#include <ctime>

// Central European time without the help of a zone database, and assertions to the trace alone.
class TestSettings : public testing::Environment {
  void SetUp() override {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("Europe/Berlin"));
    setenv("VELORIN_SAFE_ASSERT", "event", 1);
  }
};
inline const testing::Environment* const test_settings =
    testing::AddGlobalTestEnvironment(new TestSettings);

// ICU's default locale for the length of a scope.
class DefaultLocale {
 public:
  explicit DefaultLocale(const char* name) { Set(icu::Locale(name)); }
  ~DefaultLocale() { Set(before_); }

 private:
  static void Set(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(locale, status);
    EXPECT_EQ(status, U_ZERO_ERROR);
  }

  const icu::Locale before_ = icu::Locale::getDefault();
};
