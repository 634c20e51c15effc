#pragma once

#include <unicode/ucnv.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "core/common/unix/mutex.h"
#include "core/file/unix/file_name.h"

namespace Core {

// File names in an encoding of ICU. One converter serves all threads, one at a time. It is opened
// when the first name asks for it; the process aborts when that fails, as no name could be trusted.
// ASCII is taken for a part of every encoding until then, and asked for afterwards.
class icu_file_name_converter final : public file_name_converter {
 public:
  // The name of the encoding, which is copied; null is the platform's.
  explicit icu_file_name_converter(const char* encoding);
  ~icu_file_name_converter() override;

  bool AppendText(Common::String& out, std::string_view name) override;
  bool AppendBytes(std::string& out, std::u16string_view text) override;
  bool PassesAscii() const noexcept override { return !is_open_.load(std::memory_order_acquire); }

 private:
  struct closer {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
  };

  // With the mutex held.
  UConverter& GetConverter();

  const bool has_encoding_;
  const std::string encoding_;
  Common::Mutex mutex_;
  std::unique_ptr<UConverter, closer> converter_;  // guarded by `mutex_`
  std::atomic<bool> is_open_{false};
};

}  // namespace Core
