#pragma once

#include <unicode/locid.h>

// The settings of this program send assertions to the trace alone.

// ICU's default locale for the length of a scope.
class DefaultLocale {
 public:
  explicit DefaultLocale(const char* name);
  ~DefaultLocale();

 private:
  icu::Locale before_;
};
