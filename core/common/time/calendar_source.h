#pragma once

#include <unicode/gregocal.h>
#include <unicode/locid.h>

#include <atomic>
#include <memory>

#include "core/common/non_copyable.h"
#include "core/common/unix/static_mutex.h"

namespace Common {

// Makes Gregorian calendars of one locale, chosen at the first call: ICU's default locale, or if
// ICU has no data for it, the locale that the message table names. The choice is kept from then on.
//
// For static storage: constant-initialised, and what it keeps is never released. Threads: any.
class CalendarSource : NonCopyable {
 public:
  using Maker = std::unique_ptr<icu::GregorianCalendar> (*)(const icu::Locale& locale,
                                                            UErrorCode& status);

  explicit constexpr CalendarSource(Maker maker) : maker_(maker) {}

  // A calendar at any time; null if there is no memory for one.
  std::unique_ptr<icu::GregorianCalendar> Make();

 private:
  std::unique_ptr<icu::GregorianCalendar> Choose();

  const Maker maker_;
  StaticMutex mutex_;  // held while the locale is being chosen
  std::atomic<const icu::Locale*> locale_{nullptr};
};

}  // namespace Common
