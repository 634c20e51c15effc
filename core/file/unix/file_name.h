#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "core/common/string.h"

// File names as text. A name is any bytes, and comes back byte for byte from its text: a byte that
// can't be decoded becomes one unit of the byte escape (core/common/number_text.h).
//
// One kind of names is the exception: those that hold the characters U+F880 to U+F8FF themselves,
// encoded as they should be. Their text reads like an escape, and becomes other bytes. So whoever
// got an entry from a directory works on it through its iterator or identifier, which keep the
// bytes, and never through the text of its name.
//
// The encoding is UTF-8, which needs neither a lock nor a library here. It is the one that ICU
// takes for the platform's on Linux, whatever the locale, and both agree on every name; so no
// program that opens a file has to load ICU for it. For other encodings there is a converter
// (icu_file_name.h) and the place to install it.
//
// Threads: any. std::bad_alloc is thrown.

namespace Core {

// An encoding of file names.
class file_name_converter {
 public:
  virtual ~file_name_converter() = default;
  // Appends the text of the bytes, with the escape for what can't be decoded. False on failure.
  virtual bool AppendText(Common::String& out, std::string_view name) = 0;
  // Appends the bytes of a text in which there are no escapes. False if the encoding doesn't have
  // all of its characters.
  virtual bool AppendBytes(std::string& out, std::u16string_view text) = 0;
  // Whether texts of ASCII and escapes may become bytes without asking.
  virtual bool PassesAscii() const noexcept = 0;
};

// Takes effect for the conversions that begin afterwards; the converter must outlive them all. Null
// is UTF-8.
void SetFileNameConverter(file_name_converter* converter) noexcept;

// Both give an empty result when the conversion fails: for a text that the encoding doesn't have,
// such as half of a surrogate pair in UTF-8.
Common::String FileNameToText(std::string_view name);
std::string TextToFileName(std::u16string_view text);

}  // namespace Core
