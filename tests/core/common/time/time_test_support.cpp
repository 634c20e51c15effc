#include "tests/core/common/time/time_test_support.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <cstdlib>
#include <ctime>

namespace {

// Central European time without the help of a zone database.
class Zone : public testing::Environment {
  void SetUp() override {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("Europe/Berlin"));
    setenv("VELORIN_SAFE_ASSERT", "event", 1);
  }
};

[[maybe_unused]] const testing::Environment* const zone =
    testing::AddGlobalTestEnvironment(new Zone);

}  // namespace

DefaultLocale::DefaultLocale(const char* name) : before_(icu::Locale::getDefault()) {
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale::setDefault(icu::Locale(name), status);
  EXPECT_EQ(status, U_ZERO_ERROR);
}

DefaultLocale::~DefaultLocale() {
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale::setDefault(before_, status);
}

DefaultZone::DefaultZone(const char* name) : before_(icu::TimeZone::createDefault()) {
  icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(name));
}

DefaultZone::~DefaultZone() {
  icu::TimeZone::adoptDefault(before_.release());
}
