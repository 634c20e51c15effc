#include "core/file/unix/icu_file_name.h"

#include <unicode/ucnv_cb.h>
#include <unicode/ucnv_err.h>

#include <cstdlib>

#include "core/common/number_text.h"

namespace Core {
namespace {

constexpr std::size_t kBlock = 512;

// Puts the escape for bytes that can't be decoded.
void EscapeBytes(const void*, UConverterToUnicodeArgs* arguments, const char* bytes,
                 std::int32_t size, UConverterCallbackReason reason, UErrorCode* error) {
  if (reason > UCNV_IRREGULAR) return;  // a reset, or the end
  *error = U_ZERO_ERROR;
  for (std::int32_t i = 0; i != size; ++i) {
    const char16_t unit = Common::EscapeByte(static_cast<unsigned char>(bytes[i]));
    ucnv_cbToUWriteUChars(arguments, &unit, 1, 0, error);
  }
}

// Lets the conversion fail. The library's own callback of that kind drops some characters.
void Stop(const void*, UConverterFromUnicodeArgs*, const UChar*, std::int32_t, UChar32,
          UConverterCallbackReason, UErrorCode*) {}

}  // namespace

icu_file_name_converter::icu_file_name_converter(const char* encoding)
    : has_encoding_(encoding != nullptr), encoding_(encoding != nullptr ? encoding : "") {}

icu_file_name_converter::~icu_file_name_converter() = default;

UConverter& icu_file_name_converter::GetConverter() {
  if (converter_ != nullptr) return *converter_;
  UErrorCode error = U_ZERO_ERROR;
  converter_.reset(ucnv_open(has_encoding_ ? encoding_.c_str() : nullptr, &error));
  if (U_SUCCESS(error)) {
    ucnv_setToUCallBack(converter_.get(), EscapeBytes, nullptr, nullptr, nullptr, &error);
    ucnv_setFromUCallBack(converter_.get(), Stop, nullptr, nullptr, nullptr, &error);
  }
  if (U_FAILURE(error)) std::abort();
  is_open_.store(true, std::memory_order_release);
  return *converter_;
}

bool icu_file_name_converter::AppendText(Common::String& out, std::string_view name) {
  const Common::MutexLock lock(mutex_);
  UConverter& converter = GetConverter();
  ucnv_resetToUnicode(&converter);
  const char* from = name.data();
  UErrorCode error = U_BUFFER_OVERFLOW_ERROR;
  while (error == U_BUFFER_OVERFLOW_ERROR) {
    char16_t block[kBlock];
    char16_t* to = block;
    error = U_ZERO_ERROR;
    ucnv_toUnicode(&converter, &to, block + kBlock, &from, name.data() + name.size(), nullptr, true,
                   &error);
    out.append(block, to);
  }
  return U_SUCCESS(error);
}

bool icu_file_name_converter::AppendBytes(std::string& out, std::u16string_view text) {
  const Common::MutexLock lock(mutex_);
  UConverter& converter = GetConverter();
  ucnv_resetFromUnicode(&converter);
  const char16_t* from = text.data();
  UErrorCode error = U_BUFFER_OVERFLOW_ERROR;
  while (error == U_BUFFER_OVERFLOW_ERROR) {
    char block[kBlock];
    char* to = block;
    error = U_ZERO_ERROR;
    ucnv_fromUnicode(&converter, &to, block + kBlock, &from, text.data() + text.size(), nullptr,
                     true, &error);
    out.append(block, to);
  }
  return U_SUCCESS(error);
}

}  // namespace Core
