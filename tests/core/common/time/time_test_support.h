#pragma once

#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <memory>

// The settings of this program send assertions to the trace alone.

// ICU's default locale for the length of a scope.
class DefaultLocale {
 public:
  explicit DefaultLocale(const char* name);
  ~DefaultLocale();

 private:
  icu::Locale before_;
};

// ICU's default time zone for the length of a scope.
class DefaultZone {
 public:
  explicit DefaultZone(const char* name);
  ~DefaultZone();

 private:
  std::unique_ptr<icu::TimeZone> before_;
};
