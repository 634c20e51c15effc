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

// A source keeps its locale for good.
CalendarSource& NewSource() {
  static auto& sources = *new std::vector<std::unique_ptr<CalendarSource>>;
  return *sources.emplace_back(std::make_unique<CalendarSource>(&MakeAsAnswered));
}

// A calendar is made; returns the locales asked for.
std::string Make(CalendarSource& source) {
  EXPECT_NE(source.Make(), nullptr);
  return std::exchange(requests, {});
}

TEST(CalendarSource, ChoosesTheDefaultLocaleOrElseThatOfTheTableForGood) {
  const struct {
    const char* locale;
    Answers answers;
    const char* first;
    const char* later;
    std::size_t assertions;  // for each
  } cases[] = {
      {"de_DE", {}, "de_DE ", "de_DE ", 0},
      // The default has no data.
      {"de_DE", {U_USING_DEFAULT_WARNING, U_ZERO_ERROR}, "de_DE en_US ", "en_US ", 0},
      // After a failure a warning is good enough, after a warning it is no better.
      {"de_DE", {U_MISSING_RESOURCE_ERROR, U_USING_FALLBACK_WARNING}, "de_DE en_US ", "en_US ", 0},
      {"de_DE", {U_USING_DEFAULT_WARNING, U_USING_FALLBACK_WARNING}, "de_DE en_US ", "de_DE ", 0},
      {"de_DE", {U_MISSING_RESOURCE_ERROR, U_MISSING_RESOURCE_ERROR}, "de_DE en_US ", "de_DE ", 1},
      {"en_US", {U_ZERO_ERROR, U_USING_DEFAULT_WARNING}, "en_US ", "en_US ", 0},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(&row - cases);
    const TestSupport::TraceRecorder traces(Common::kTraceCritical);
    CalendarSource& source = NewSource();
    const DefaultLocale locale(row.locale);
    answers = row.answers;
    EXPECT_EQ(Make(source), row.first);
    EXPECT_EQ(traces.Assertions(), Texts(row.assertions, "U_SUCCESS(dErr)"));
    const DefaultLocale later("fr_FR");
    EXPECT_EQ(Make(source), row.later);
    EXPECT_EQ(traces.Assertions(), Texts(2 * row.assertions, "U_SUCCESS(dErr)"));
  }
}

TEST(CalendarSource, ChoosesNothingWithoutMemory) {
  CalendarSource& source = NewSource();
  answers = {};
  answers.has_memory = false;
  EXPECT_EQ(source.Make(), nullptr);
  requests.clear();
  answers.has_memory = true;
  const DefaultLocale later("fr_FR");
  EXPECT_EQ(Make(source), "fr_FR ");
}

TEST(CalendarSource, ChoosesOnceForAllThreads) {
  const DefaultLocale locale("de_DE");
  CalendarSource& source = NewSource();
  answers = {U_USING_DEFAULT_WARNING, U_ZERO_ERROR};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&source] { EXPECT_NE(source.Make(), nullptr); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::exchange(requests, {}), "de_DE en_US en_US en_US en_US ");
}

}  // namespace
