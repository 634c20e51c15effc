#pragma once

#include <unicode/datefmt.h>

#include <memory>

#include "core/common/time/time_format.h"

namespace Common {

// The format by ICU.
class TimeFormatIcu : public TimeFormat {
 public:
  // As TimeFormat::Create.
  static std::unique_ptr<TimeFormat> Create(int style, int what);

  // Null is a format whose operations fail.
  explicit TimeFormatIcu(std::unique_ptr<icu::DateFormat> format);
  ~TimeFormatIcu() override;

  std::uint32_t Format(const DateTime& value, String& out) override;
  int Parse(const String& text, DateTime& out) override;

 private:
  std::unique_ptr<icu::DateFormat> format_;
};

}  // namespace Common
