#include "core/common/message_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "core/common/error.h"
#include "core/common/error_record.h"
#include "core/common/guid.h"
#include "core/common/message_table_internal.h"

namespace Common {
namespace {

using Internal::GetBuiltInMessageTable;

// Before main, in whatever order.
const String kEarlyText = GetMessageText(MessageRow::Success);

TEST(MessageTable, BuiltInBlockHasItsLayout) {
  EXPECT_EQ(kEarlyText, u"Success");
  const Internal::MessageTable table = GetBuiltInMessageTable();
  ASSERT_EQ(LittleEndian::Get32(table.block), table.size);
  ASSERT_EQ(LittleEndian::Get32(table.block + 4), 694u);
  const std::vector<std::size_t> narrow_rows{43, 44, 45, 559, 669, 670, 682};
  for (std::size_t row = 0; row < 694; ++row) {
    const std::size_t slot = 8 + 4 * row;
    const std::size_t text = slot + LittleEndian::Get32(table.block + slot);
    ASSERT_GE(text, 8u + 4 * 694) << row;
    ASSERT_LT(text, table.size) << row;
    const bool is_narrow =
        std::find(narrow_rows.begin(), narrow_rows.end(), row) != narrow_rows.end();
    if (is_narrow) {
      ASSERT_NE(std::memchr(table.block + text, 0, table.size - text), nullptr) << row;
      continue;
    }
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(table.block + text) % 2, 0u) << row;
    std::size_t end = text;
    while (end + 1 < table.size && LittleEndian::Get16(table.block + end) != 0) end += 2;
    ASSERT_LT(end + 1, table.size) << row;
  }
}

TEST(MessageTable, RowsHaveTheirNumbers) {
  const auto wide = [](std::uint32_t row) {
    return String(GetMessageText(static_cast<MessageRow>(row)));
  };
  const auto ansi = [](std::uint32_t row) {
    return std::string(GetMessageText(static_cast<AnsiMessageRow>(row)));
  };
  EXPECT_EQ(wide(21), u"function");
  EXPECT_EQ(wide(40), u"warning");
  EXPECT_EQ(wide(138), u"ASYNC: The operation has been canceled.");
  EXPECT_EQ(wide(272), u"DML: Unproper use. Missing {0}.");
  EXPECT_EQ(wide(375),
            u"POR: There is a mismatch in object internal structure. Expected object type is "
            u"'{0}', actual object type is '{1}'.");
  EXPECT_EQ(wide(502), u"Canceled.");
  EXPECT_EQ(wide(546), u"Error occurred while writing to the file.");
  EXPECT_EQ(wide(657), u"Cannot find the object's meta info.");
  EXPECT_EQ(ansi(43), "windows-1252");
  EXPECT_EQ(ansi(44), "windows-850");
  EXPECT_EQ(ansi(45), "en-US");
  EXPECT_EQ(ansi(559), "0x0409");
  EXPECT_EQ(ansi(669), "en_US");
  EXPECT_EQ(ansi(670), "en-US");
  EXPECT_EQ(ansi(682), "iso10646-1,iso8859-1");
}

TEST(MessageTable, AnotherTableComesIntoForceWhileOldTextsStay) {
  // The built-in table with one word changed.
  const Internal::MessageTable built_in = GetBuiltInMessageTable();
  std::vector<char16_t> units(built_in.size / 2);
  std::memcpy(units.data(), built_in.block, built_in.size);
  auto* block = reinterpret_cast<unsigned char*>(units.data());
  const char16_t* old_word = GetMessageText(MessageRow::ErrorHeader);
  const auto at = reinterpret_cast<const unsigned char*>(old_word) - built_in.block;
  units[static_cast<std::size_t>(at) / 2] = u'T';

  const Error old_error(1, GetMessageText(MessageRow::PorNullUnit), LineTag{});
  Internal::SetCurrentMessageTable(block);
  EXPECT_EQ(GetMessageText(MessageRow::ErrorHeader), String(u"Trror"));
  EXPECT_EQ(old_word, String(u"Error"));
  {
    const Error new_error(1, GetMessageText(MessageRow::PorNullUnit), LineTag{});
    EXPECT_EQ(new_error.GetRecord()->size, old_error.GetRecord()->size);  // not copied either
    EXPECT_EQ(new_error.ToString(), old_error.ToString());
    EXPECT_TRUE(new_error.ToString().starts_with(u"Trror 0x1: POR: Null"));
  }
  Internal::SetCurrentMessageTable(nullptr);
  EXPECT_EQ(GetMessageText(MessageRow::ErrorHeader), old_word);
}

TEST(FormatMessage, FillsPlaces) {
  const String digits63(63, u'0');
  const struct {
    String pattern;
    std::vector<String> arguments;
    String expected;
  } cases[] = {
      {u"", {u"a"}, u""},
      {u"{1} {0}", {u"a", u"b"}, u"b a"},
      {u"{0}{0}", {u"a"}, u"aa"},
      {u"{0} {1}", {u"a"}, u"a {1}"},
      {u"{1} {0}", {u"a"}, u"{1} {0}"},  // the first one too large ends it
      {u"{0}", {}, u"{0}"},
      {u"{0} {1}", {u"{1}", u"{0}"}, u"{1} {0}"},
      {u"{", {u"a"}, u"{"},
      {u"{}", {u"a"}, u"{}"},
      {u"{x}{0}", {u"a"}, u"{x}a"},
      {u"{{0}}", {u"a"}, u"{a}"},
      {u"{0", {u"a"}, u"{0"},
      {u"{0{0}", {u"a"}, u"{0a"},
      {u"{0 }{0}", {u"a"}, u"{0 }a"},
      {u"{-1}{0}", {u"a"}, u"{-1}a"},
      {u"{\u0660}{0}", {u"a"}, u"{\u0660}a"},
      {u"{00}", {u"a"}, u"a"},
      {u"{18446744073709551616} {0}", {u"a"}, u"{18446744073709551616} {0}"},
      {u"{" + digits63 + u"}", {u"a"}, u"a"},
      {u"{" + digits63 + u"9}", {u"a"}, u"a"},  // the 64th digit isn't read
      {u"{" + String(63, u'9') + u"} {0}", {u"a"}, u"{" + String(63, u'9') + u"} {0}"},
      {String(u"\0{0}", 4), {String(u"\0", 1)}, String(u"\0\0", 2)},
  };
  for (const auto& row : cases) {
    String out = u"before";
    FormatMessage(out, row.pattern, row.arguments);
    EXPECT_TRUE(out == row.expected) << &row - cases;
  }
}

TEST(FormatMessage, TakesOneArgumentAndItsOwnPattern) {
  String text = u"'{0}' {1}";
  FormatMessage(text, text, String(u"a"));
  EXPECT_EQ(text, u"'a' {1}");
  FormatMessage(text, u"{0}", std::string("caf\xC3\xA9"));
  EXPECT_EQ(text, u"caf\u00E9");
}

}  // namespace
}  // namespace Common
