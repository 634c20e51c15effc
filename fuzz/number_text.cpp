// Texts of numbers and GUIDs: RADIX, TEXT. A number is what the grammar, put another way, and the
// library's reader of digits make of it; what is written is read; a GUID that is refused leaves its
// place alone.

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

#include "core/common/number_text.h"
#include "core/common/string.h"
#include "fuzz/fuzz_target.h"

namespace {

// All of `digits`, at least one.
bool ReadDigits(std::string_view digits, int radix, std::uint64_t& number) {
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), number, radix);
  return error == std::errc() && end == digits.data() + digits.size();
}

bool ReadNumber(std::string_view text, int radix, std::uint64_t& number) {
  const std::size_t begin = text.find_first_not_of(' ');
  if (begin == text.npos) return false;
  text = text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
  if (radix == 10) {
    if (text.back() == 'h' || text.back() == 'H') {
      return ReadDigits(text.substr(0, text.size() - 1), 16, number);
    }
    // The prefix: zeros, an "x".
    const std::size_t mark = text.find_first_of("xX");
    if (mark != text.npos && mark != 0 && text.find_first_not_of('0') == mark) {
      return ReadDigits(text.substr(mark + 1), 16, number);
    }
  }
  return ReadDigits(text, radix, number);
}

void RequireReads(const std::string& text, int radix, std::uint64_t number) {
  const Common::String wide(text.begin(), text.end());
  std::uint64_t again = ~number;
  Fuzz::Require(Common::ParseNumber(&again, wide.c_str(), static_cast<std::uint8_t>(radix)) &&
                    again == number,
                "a number that was written is read");
}

void TryNumber(const std::string& text, int radix) {
  const Common::String wide(text.begin(), text.end());
  std::uint64_t number = 0;
  const bool good = Common::ParseNumber(&number, wide.c_str(), static_cast<std::uint8_t>(radix));
  if (radix < 2 || radix > 36) return;  // not a radix of the library
  std::uint64_t expected = 0;
  Fuzz::Require(ReadNumber(text, radix, expected) == good, "both readers accept alike");
  if (!good) return;
  Fuzz::Require(number == expected, "both readers see the same number");
  RequireReads(Common::NumberToDecimal(number), 10, number);
  RequireReads(Common::NumberToHex(number), 10, number);
}

// 8, 4, 4, 4 and 12 hexadecimal digits.
bool IsPlainGuid(std::string_view text) {
  if (text.size() < 36) return false;
  for (std::size_t i = 0; i < 36; ++i) {
    const bool is_dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (is_dash ? text[i] != '-'
                : std::string_view("0123456789abcdefABCDEF").find(text[i]) == text.npos) {
      return false;
    }
  }
  return true;
}

void TryGuid(const std::string& text) {
  Common::Guid before;
  before.bytes.fill(0xA5);
  Common::Guid guid = before;
  const bool good = Common::GuidFromString(guid, text.c_str());
  Fuzz::Require(good || guid == before, "a GUID that is refused leaves its place alone");
  Fuzz::Require(good || !IsPlainGuid(text), "a GUID in its own form is accepted");
  if (!good) return;
  const std::string written = Common::GuidToString(guid);
  Common::Guid again = before;
  Fuzz::Require(Common::GuidFromString(again, written.c_str()) && again == guid,
                "a GUID that was read comes back");
  if (!IsPlainGuid(text)) return;
  std::string upper = text.substr(0, 36);
  for (char& c : upper) c = c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
  Fuzz::RequireEqual(written, upper, "a GUID is written as it was read, in upper case");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // Both readers stop at a 0.
  std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  text.resize(std::min(text.size(), text.find('\0')));
  TryNumber(text, data[0]);
  TryNumber(text, 10);
  TryGuid(text);
  return 0;
}
