// Messages. The input's lines: PATTERN, ARGUMENT...; filled in as a search for one place after the
// other does it, by all three operations. And the input as the byte form of an error, rendered:
// what a record says cannot pass for a record of its own, and a chain that went through its byte
// form reads the same.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/error.h"
#include "core/common/error_record.h"
#include "core/common/message_table.h"
#include "core/common/text.h"
#include "fuzz/fuzz_target.h"
#include "tests/support/text.h"

using Common::String;

namespace {

String Fill(std::u16string_view pattern, const std::vector<String>& arguments) {
  String out;
  while (!pattern.empty()) {
    std::string digits;
    if (pattern[0] == u'{') {
      for (const char16_t c : pattern.substr(1)) {
        if (c < u'0' || c > u'9') break;
        digits += static_cast<char>(c);
      }
    }
    const std::size_t end = digits.size() + 1;
    if (digits.empty() || end == pattern.size() || pattern[end] != u'}') {
      out += pattern[0];
      pattern.remove_prefix(1);
      continue;
    }
    // Of more digits than are read, the first ones count.
    digits.resize(std::min<std::size_t>(digits.size(), 63));
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
    if (digits.size() > 9 || std::stoul(digits) >= arguments.size()) break;
    out += arguments[std::stoul(digits)];
    pattern.remove_prefix(end + 1);
  }
  return out.append(pattern);
}

void TryFormat(std::string_view input) {
  std::vector<String> lines;
  for (bool more = true; more;) {
    const std::size_t end = input.find('\n');
    const std::string_view line = input.substr(0, end);
    Common::ToUtf16(lines.emplace_back(), line.data(), line.size());
    more = end != input.npos;
    if (more) input.remove_prefix(end + 1);
  }
  const String pattern = lines[0];
  lines.erase(lines.begin());

  String out = u"earlier";
  Common::FormatMessage(out, pattern, lines);
  Fuzz::Require(out == Fill(pattern, lines), "places are filled in");
  // As far as UTF-8 goes, to a 0, which more bytes than one may have put there.
  const String argument = (lines.empty() ? pattern : lines[0]).c_str();
  Common::FormatMessage(out, pattern, argument);
  Fuzz::Require(out == Fill(pattern, {argument}), "the place of one argument is filled in");
  String again;
  Common::FormatMessage(again, pattern, TestSupport::Utf8(argument));
  Fuzz::Require(again == out, "an argument in UTF-8 is the same");
  // The result may take the place of what it is made of.
  String in_place = pattern;
  Common::FormatMessage(in_place, in_place, argument);
  Fuzz::Require(in_place == out, "a pattern may be filled in where it is");
  in_place = argument;
  Common::FormatMessage(in_place, pattern, in_place);
  Fuzz::Require(in_place == out, "an argument may be filled in where it is");
}

std::size_t Count(std::u16string_view text, std::u16string_view part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size()) ++count;
  return count;
}

void TryRender(const std::uint8_t* data, std::size_t size) {
  const Common::Error error = Common::Error::Load(data, static_cast<unsigned int>(size));
  const String text = error.ToString();
  std::size_t records = 0;
  bool is_clear = true;
  for (const Common::ErrorRecord* record = error.GetRecord(); record != nullptr;
       record = record->next) {
    ++records;
    // Of the values of a name the rendering takes the wide one, the byte form the other. What is no
    // value stands on its line as it is.
    is_clear = is_clear && (record->file == nullptr || !std::strchr(record->file, '\n')) &&
               (record->function == nullptr || !std::strchr(record->function, '\n'));
    Common::ParameterNames names(*record);
    for (std::string name; is_clear && names.Next(name);) {
      is_clear = name.find('\n') == name.npos && name != "$line" &&
                 (record->operations->GetAnsi(record, name.c_str()) == nullptr ||
                  record->operations->GetWide(record, name.c_str()) == nullptr);
    }
  }
  if (!is_clear) return;
  Fuzz::Require(records == 0 || Count(text, u"\n|\n| ") == records - 1,
                "a line parts each record from the next");
  Fuzz::Require(Count(text, u"\n") == Count(text, u"\n|"), "every line belongs to the record");
  unsigned int length = 0;
  const auto bytes = error.Save(length);
  Fuzz::RequireEqual(TestSupport::Utf8(Common::Error::Load(bytes.get(), length).ToString()),
                     TestSupport::Utf8(text), "a chain reads the same behind its byte form");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  TryFormat({reinterpret_cast<const char*>(data), size});
  TryRender(data, size);
  return 0;
}
