#include "tools/objprobe_resources/catalogue.h"

#include <algorithm>
#include <charconv>
#include <set>

#include "core/common/message_catalogue.h"
#include "core/common/message_table.h"
#include "core/common/message_table_internal.h"
#include "core/common/text.h"

namespace ResourceTool {

namespace {

using Common::kMessageRowCount;
using Common::Internal::IsAnsiMessageRow;

std::string GetBuiltInText(std::uint32_t row) {
  if (IsAnsiMessageRow(row)) {
    return Common::GetMessageText(static_cast<Common::AnsiMessageRow>(row));
  }
  std::string text;
  Common::ToUtf8(text, Common::GetMessageText(static_cast<Common::MessageRow>(row)));
  return text;
}

// The number in "Row 21."; the number of rows if there is none.
std::uint32_t FindRow(const PoEntry& entry) {
  constexpr std::string_view kBegin = "Row ";
  for (const std::string& comment : entry.comments) {
    if (!comment.starts_with(kBegin)) continue;
    std::uint32_t row = 0;
    const char* const end = comment.data() + comment.size();
    const auto [stop, error] = std::from_chars(comment.data() + kBegin.size(), end, row);
    if (error == std::errc() && std::string_view(stop, end) == "." && row < kMessageRowCount) {
      return row;
    }
  }
  return kMessageRowCount;
}

// The numbers of the places, as they are written, in ascending order.
std::vector<std::string> ListPlaces(const std::string& text) {
  std::vector<std::string> places;
  for (std::size_t at = 0; (at = text.find('{', at)) != text.npos;) {
    const std::size_t begin = ++at;
    at = std::min(text.find_first_not_of("0123456789", at), text.size());
    if (at > begin && at < text.size() && text[at] == '}') {
      places.push_back(text.substr(begin, at - begin));
    }
  }
  std::sort(places.begin(), places.end());
  return places;
}

bool IsPrintableAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool HasHeaderLine(const std::string& header, const std::string& line) {
  return ("\n" + header).find("\n" + line + "\n") != std::string::npos;
}

void Put32(std::vector<unsigned char>& block, std::size_t at, std::size_t value) {
  for (int i = 0; i < 4; ++i) block[at + static_cast<std::size_t>(i)] = (value >> (8 * i)) & 0xFF;
}

// Texts by row.
using Texts = std::map<std::uint32_t, std::string>;

std::vector<unsigned char> MakeBlock(const Texts& texts) {
  constexpr std::size_t kSlots = 8;
  // The empty text that rows without one share.
  constexpr std::size_t kEmpty = kSlots + std::size_t{4} * kMessageRowCount;
  std::vector<unsigned char> block(kEmpty + sizeof(char16_t));
  for (std::uint32_t row = 0; row < kMessageRowCount; ++row) {
    const std::size_t slot = kSlots + std::size_t{4} * row;
    const auto found = texts.find(row);
    if (found == texts.end()) {
      Put32(block, slot, kEmpty - slot);
      continue;
    }
    Put32(block, slot, block.size() - slot);
    if (IsAnsiMessageRow(row)) {
      block.insert(block.end(), found->second.begin(), found->second.end());
      block.push_back(0);
      if (block.size() % 2 != 0) block.push_back(0);
      continue;
    }
    Common::String wide;
    Common::ToUtf16(wide, found->second.data(), found->second.size());
    wide += u'\0';
    for (const char16_t unit : wide) {
      block.push_back(static_cast<unsigned char>(unit & 0xFF));
      block.push_back(static_cast<unsigned char>(unit >> 8));
    }
  }
  Put32(block, 0, block.size());
  Put32(block, 4, kMessageRowCount);
  return block;
}

}  // namespace

Template ReadTemplate(const std::string& name, std::string_view text) {
  Template rows;
  std::set<std::uint32_t> numbers;
  std::vector<PoEntry> entries = ReadPo(name, text);
  entries.erase(entries.begin());
  for (const PoEntry& entry : entries) {
    const std::uint32_t row = FindRow(entry);
    if (row == kMessageRowCount)
      throw BadFile(name, entry.line, "No comment says which row it is.");
    if (entry.context.empty()) throw BadFile(name, entry.line, "The row has no name (msgctxt).");
    if (GetBuiltInText(row) != entry.original) {
      throw BadFile(name, entry.line, "The row has another text in the program.");
    }
    if (!numbers.insert(row).second ||
        !rows.try_emplace(entry.context, TemplateRow{row, entry.original}).second) {
      throw BadFile(name, entry.line, "The row is there twice.");
    }
  }
  for (std::uint32_t row = 0; row < kMessageRowCount; ++row) {
    if (!GetBuiltInText(row).empty() && numbers.count(row) == 0) {
      throw BadFile(name, 1, "Row " + std::to_string(row) + " is missing.");
    }
  }
  return rows;
}

std::vector<unsigned char> CompileCatalogue(const Template& rows, const std::string& language,
                                            const std::string& name, std::string_view text) {
  std::vector<PoEntry> entries = ReadPo(name, text);
  if (!HasHeaderLine(entries.front().translation, "Language: " + language)) {
    throw BadFile(name, entries.front().line, "The header doesn't say Language: " + language + ".");
  }
  entries.erase(entries.begin());
  Texts texts;
  for (const PoEntry& entry : entries) {
    const auto fail = [&](const std::string& why) {
      throw BadFile(name, entry.line, "Row '" + entry.context + "': " + why);
    };
    const auto row = rows.find(entry.context);
    if (row == rows.end()) fail("There is no such row.");
    if (row->second.original != entry.original) fail("The original is another one.");
    if (entry.translation.empty() || entry.is_fuzzy) fail("The translation is unfinished.");
    if (ListPlaces(entry.translation) != ListPlaces(entry.original)) {
      fail("The places {n} aren't those of the original.");
    }
    if (IsAnsiMessageRow(row->second.row) && !IsPrintableAscii(entry.translation)) {
      fail("The row takes ASCII only.");
    }
    if (!texts.try_emplace(row->second.row, entry.translation).second) fail("It is there twice.");
  }
  for (const auto& [context, row] : rows) {
    if (texts.count(row.row) == 0) throw BadFile(name, 1, "Row '" + context + "' is missing.");
  }
  return MakeBlock(texts);
}

}  // namespace ResourceTool
