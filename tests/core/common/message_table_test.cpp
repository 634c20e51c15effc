#include "core/common/message_table.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace Common {
namespace {

// Before main, in whatever order.
const String early_text = GetMessageText(MessageRow::Success);

// That each listed row lies in its place of the block is proven as the block is built.
TEST(MessageTable, RowsHaveTheirNumbers) {
  EXPECT_EQ(early_text, u"Success");
  const std::pair<std::uint32_t, String> wide[] = {
      {21, u"function"},
      {138, u"ASYNC: The operation has been canceled."},
      {272, u"DML: Unproper use. Missing {0}."},
      {375,
       u"POR: There is a mismatch in object internal structure. Expected object type is '{0}', "
       u"actual object type is '{1}'."},
      {546, u"Error occurred while writing to the file."},
      {657, u"Cannot find the object's meta info."},
  };
  for (const auto& [row, text] : wide) {
    EXPECT_EQ(GetMessageText(static_cast<MessageRow>(row)), text) << row;
  }
  const std::pair<std::uint32_t, const char*> ansi[] = {
      {43, "windows-1252"},
      {559, "0x0409"},
      {669, "en_US"},
      {682, "iso10646-1,iso8859-1"},
  };
  for (const auto& [row, text] : ansi) {
    EXPECT_STREQ(GetMessageText(static_cast<AnsiMessageRow>(row)), text);
  }
}

TEST(FormatMessage, FillsPlaces) {
  const String digits63(63, u'0');
  const struct {
    String pattern;
    std::vector<String> arguments;
    String expected;
  } cases[] = {
      {u"{1} {0}", {u"a", u"b"}, u"b a"},
      {u"{0} {1}", {u"a"}, u"a {1}"},
      {u"{1} {0}", {u"a"}, u"{1} {0}"},  // the first one too large ends it
      {u"{0}", {}, u"{0}"},
      {u"{0} {1}", {u"{1}", u"{0}"}, u"{1} {0}"},
      {u"{}", {u"a"}, u"{}"},
      {u"{x}{0}", {u"a"}, u"{x}a"},
      {u"{{0}}", {u"a"}, u"{a}"},
      {u"{0", {u"a"}, u"{0"},
      {u"{0{0}", {u"a"}, u"{0a"},
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
  String text = u"'{0}' {1}";
  FormatMessage(text, text, String(u"a"));
  EXPECT_EQ(text, u"'a' {1}");
  FormatMessage(text, u"{0}", std::string("caf\xC3\xA9"));
  EXPECT_EQ(text, u"caf\u00E9");
}

}  // namespace
}  // namespace Common
