#include "core/common/time/calendar_source.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/core/common/time/time_test_support.h"
#include "tests/support/trace_recorder.h"

namespace {

using Common::CalendarSource;
using Texts = std::vector<std::string>;

// How ICU answers for its default locale and for that of the message table, "en_US".
struct Answers {
  UErrorCode preferred = U_ZERO_ERROR;
  UErrorCode named = U_ZERO_ERROR;
  bool has_memory = true;
};
Answers answers;
std::string requests;
std::mutex requests_mutex;

std::unique_ptr<icu::GregorianCalendar> MakeAsAnswered(const icu::Locale& locale,
                                                       UErrorCode& status) {
  {
    const std::lock_guard<std::mutex> lock(requests_mutex);
    requests += std::string(locale.getName()) + " ";
  }
  if (!answers.has_memory) return nullptr;
  auto calendar = std::make_unique<icu::GregorianCalendar>(locale, status);
  status = std::string(locale.getName()) == "en_US" ? answers.named : answers.preferred;
  return calendar;
}

class CalendarSourceTest : public testing::Test {
 protected:
  // A calendar is made; returns the locales asked for.
  std::string Make(CalendarSource& source) {
    EXPECT_NE(source.Make(), nullptr);
    return std::exchange(requests, {});
  }

  const DefaultLocale locale_{"de_DE"};
  const TestSupport::TraceRecorder traces_{Common::kTraceCritical};
};

TEST_F(CalendarSourceTest, KeepsTheDefaultLocaleOfTheFirstCall) {
  static constinit CalendarSource source(&MakeAsAnswered);
  answers = {};
  EXPECT_EQ(Make(source), "de_DE ");
  const DefaultLocale later("fr_FR");
  EXPECT_EQ(Make(source), "de_DE ");
  EXPECT_EQ(traces_.Assertions(), Texts());
}

TEST_F(CalendarSourceTest, TakesTheNamedLocaleWhenTheDefaultHasNoData) {
  for (const UErrorCode failure : {U_USING_DEFAULT_WARNING, U_MISSING_RESOURCE_ERROR}) {
    static constinit CalendarSource sources[] = {CalendarSource(&MakeAsAnswered),
                                                 CalendarSource(&MakeAsAnswered)};
    CalendarSource& source = sources[failure == U_MISSING_RESOURCE_ERROR];
    // After a failure a warning is good enough.
    answers = {failure, U_FAILURE(failure) ? U_USING_FALLBACK_WARNING : U_ZERO_ERROR};
    EXPECT_EQ(Make(source), "de_DE en_US ");
    EXPECT_EQ(Make(source), "en_US ");
    EXPECT_EQ(traces_.Assertions(), Texts());
  }
}

TEST_F(CalendarSourceTest, KeepsTheDefaultWhenTheNamedLocaleIsNoBetter) {
  static constinit CalendarSource warned(&MakeAsAnswered);
  answers = {U_USING_DEFAULT_WARNING, U_USING_FALLBACK_WARNING};
  EXPECT_EQ(Make(warned), "de_DE en_US ");
  EXPECT_EQ(Make(warned), "de_DE ");
  EXPECT_EQ(traces_.Assertions(), Texts());

  static constinit CalendarSource failed(&MakeAsAnswered);
  answers = {U_MISSING_RESOURCE_ERROR, U_MISSING_RESOURCE_ERROR};
  EXPECT_EQ(Make(failed), "de_DE en_US ");
  EXPECT_EQ(traces_.Assertions(), Texts({"U_SUCCESS(dErr)"}));
  EXPECT_EQ(Make(failed), "de_DE ");
  EXPECT_EQ(traces_.Assertions(), Texts({"U_SUCCESS(dErr)", "U_SUCCESS(dErr)"}));

  static constinit CalendarSource same(&MakeAsAnswered);
  const DefaultLocale locale("en_US");
  answers = {U_ZERO_ERROR, U_USING_DEFAULT_WARNING};
  EXPECT_EQ(Make(same), "en_US ");
}

TEST_F(CalendarSourceTest, ChoosesNothingWithoutMemory) {
  static constinit CalendarSource source(&MakeAsAnswered);
  answers = {};
  answers.has_memory = false;
  EXPECT_EQ(source.Make(), nullptr);
  requests.clear();
  answers.has_memory = true;
  const DefaultLocale later("fr_FR");
  EXPECT_EQ(Make(source), "fr_FR ");
}

TEST_F(CalendarSourceTest, ChoosesOnceForAllThreads) {
  static constinit CalendarSource source(&MakeAsAnswered);
  answers = {U_USING_DEFAULT_WARNING, U_ZERO_ERROR};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] { EXPECT_NE(source.Make(), nullptr); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::exchange(requests, {}), "de_DE en_US en_US en_US en_US ");
}

}  // namespace
