#pragma once

#include <unicode/locid.h>

#include <string>

#include "core/common/unix/trace.h"

// Gathers the texts of assertions of this process for the length of a scope. The settings of this
// program send them to the trace alone.
class AssertionTexts : public Common::TraceSink {
 public:
  AssertionTexts();
  ~AssertionTexts() override;

  // Each without its place, ended by a line feed.
  std::string Take();

  unsigned int GetLevel() const override { return Common::kTraceCritical; }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char* text) override;
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char16_t* text) override;

 private:
  std::string texts_;
};

// ICU's default locale for the length of a scope.
class DefaultLocale {
 public:
  explicit DefaultLocale(const char* name);
  ~DefaultLocale();

 private:
  icu::Locale before_;
};
