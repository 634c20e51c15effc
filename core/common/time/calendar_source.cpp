#include "core/common/time/calendar_source.h"

#include <utility>

#include "core/common/message_table.h"
#include "core/common/unix/safe_assert.h"

namespace Common {
namespace {

// A calendar that came without a time zone would crash at its first use.
bool LacksZone(UErrorCode status) {
  return status == U_MEMORY_ALLOCATION_ERROR || status == U_ILLEGAL_ARGUMENT_ERROR;
}

}  // namespace

std::unique_ptr<icu::GregorianCalendar> CalendarSource::Make() {
  const icu::Locale* locale = locale_.load(std::memory_order_acquire);
  if (locale == nullptr) {
    const StaticMutexLock lock(mutex_);
    locale = locale_.load(std::memory_order_relaxed);
    if (locale == nullptr) return Choose();
  }
  UErrorCode dErr = U_ZERO_ERROR;
  std::unique_ptr<icu::GregorianCalendar> calendar = maker_(*locale, dErr);
  SAFE_ASSERT(U_SUCCESS(dErr));
  if (LacksZone(dErr)) return nullptr;
  return calendar;
}

std::unique_ptr<icu::GregorianCalendar> CalendarSource::Choose() {
  const icu::Locale preferred = icu::Locale::getDefault();
  UErrorCode dErr = U_ZERO_ERROR;
  std::unique_ptr<icu::GregorianCalendar> calendar = maker_(preferred, dErr);
  if (calendar == nullptr) return nullptr;

  if (U_FAILURE(dErr) || dErr == U_USING_DEFAULT_WARNING) {
    const icu::Locale named =
        icu::Locale::createFromName(GetMessageText(AnsiMessageRow::LocaleName));
    if (named != preferred) {
      UErrorCode status = U_ZERO_ERROR;
      std::unique_ptr<icu::GregorianCalendar> second = maker_(named, status);
      if (second != nullptr && (status == U_ZERO_ERROR || (U_FAILURE(dErr) && U_SUCCESS(status)))) {
        locale_.store(named.clone(), std::memory_order_release);
        return second;
      }
    }
  }
  locale_.store(preferred.clone(), std::memory_order_release);
  SAFE_ASSERT(U_SUCCESS(dErr));
  if (LacksZone(dErr)) return nullptr;
  return calendar;
}

}  // namespace Common
