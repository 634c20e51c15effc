#include "tools/objprobe_resources/catalogue.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/common/message_catalogue.h"

// Compiles the translations of the tree, and what they become by mistakes of translators.

namespace ResourceTool {
namespace {

std::string ReadText(const std::string& name) {
  std::ifstream stream(std::string(LOCALES) + "/" + name, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  EXPECT_FALSE(text.empty()) << name;
  return text;
}

const Template& GetTemplate() {
  static const Template rows = ReadTemplate("objprobe.pot", ReadText("objprobe.pot"));
  return rows;
}

void Replace(std::string& text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  ASSERT_NE(at, text.npos) << from;
  text.replace(at, from.size(), to);
}

// The message of the refusal, empty if the text is taken.
std::string Refuse(const std::string& language, const std::string& text) {
  try {
    CompileCatalogue(GetTemplate(), language, "F", text);
    return "";
  } catch (const BadFile& failure) {
    return failure.what();
  }
}

std::string GetBytes(const std::vector<unsigned char>& block, std::size_t at, std::size_t size) {
  return at <= block.size() && size <= block.size() - at
             ? std::string(block.begin() + static_cast<std::ptrdiff_t>(at),
                           block.begin() + static_cast<std::ptrdiff_t>(at + size))
             : std::string("outside");
}

TEST(Catalogue, IsLaidOutAsTheTableIs) {
  const std::string text = ReadText("ru.po");
  const std::vector<unsigned char> block = CompileCatalogue(GetTemplate(), "ru", "ru.po", text);
  EXPECT_TRUE(Common::Internal::IsCatalogue(block.data(), block.size()));
  // 694 slots behind 8 bytes end at 2784. The empty text there takes two bytes, and the first row
  // with a text, 21, follows at 2786; its slot is at 8 + 4 * 21 = 92.
  EXPECT_EQ(GetBytes(block, 4, 4), std::string("\xB6\x02\0\0", 4));
  EXPECT_EQ(GetBytes(block, 8, 4), std::string("\xD8\x0A\0\0", 4));   // 2784 - 8
  EXPECT_EQ(GetBytes(block, 92, 4), std::string("\x86\x0A\0\0", 4));  // 2786 - 92
  EXPECT_EQ(GetBytes(block, 2784, 18),
            std::string("\0\0"
                        "\x44\x04\x43\x04\x3D\x04\x3A\x04\x46\x04\x38\x04\x4F\x04\0\0",
                        18));  // "функция"
  // Row 22 follows it.
  EXPECT_EQ(GetBytes(block, 96, 4), std::string("\x92\x0A\0\0", 4));  // 2802 - 96
  EXPECT_EQ(GetBytes(block, 2802, 4), std::string("\x1E\x04\x48\x04", 4));
  // An 8-bit row.
  std::size_t at = 8 + 4 * 43;
  at += block[at] + std::size_t{256} * block[at + 1];
  EXPECT_EQ(GetBytes(block, at, 13), std::string("windows-1251", 13));
  const std::size_t size = block.size();
  EXPECT_EQ(block[0] + 256 * block[1], static_cast<int>(size));
  EXPECT_EQ(block[2] + block[3], 0);
}

TEST(Catalogue, IsRefusedForWhatATranslatorCanForget) {
  const std::string german = ReadText("de.po");
  ASSERT_EQ(Refuse("de", german), "");
  const std::string row = "msgctxt \"PorUnitCorrupted\"\n";
  const std::string places = "msgctxt \"PorBranchNotFound\"\n";
  const auto without = [&](const std::string& context) {
    std::string text = german;
    const std::size_t begin = text.find(context);
    text.erase(begin, text.find("\n\n", begin) - begin);
    return text;
  };
  const auto entry = [&](const std::string& context) {
    const std::size_t begin = german.find(context);
    return german.substr(begin, german.find("\n\n", begin) - begin);
  };
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string text = german;
    Replace(text, from, to);
    return text;
  };
  // Changes the translation of the row with one place.
  const auto with_place = [&](const std::string& to) {
    std::string text = german;
    const std::size_t begin = text.find(places);
    const std::size_t at = text.find("{0}", text.find("msgstr", begin));
    text.replace(at, 3, to);
    return text;
  };
  const struct {
    std::string text;
    const char* reason;
  } cases[] = {
      {without(row), "Row 'PorUnitCorrupted' is missing."},
      {with_place("{1}"), "Row 'PorBranchNotFound': The places"},
      {with_place("{0} {0}"), "Row 'PorBranchNotFound': The places"},
      {with_place("{0} {1}"), "Row 'PorBranchNotFound': The places"},
      {with("msgstr \"Fehler\"", "msgstr \"\""), "Row 'ErrorHeader': The translation is unfin"},
      {with("msgctxt \"ErrorHeader\"", "#, fuzzy\nmsgctxt \"ErrorHeader\""),
       "Row 'ErrorHeader': The translation is unfin"},
      {german + "\n" + entry(row) + "\n", "Row 'PorUnitCorrupted': It is there twice."},
      {with("msgctxt \"ErrorHeader\"", "msgctxt \"Header\""),
       "Row 'Header': There is no such row."},
      {with("msgid \"Error\"", "msgid \"Errors\""), "Row 'ErrorHeader': The original is another"},
      {with("\"cp1252\"", "\"cp\\n\""), "Row 'AnsiCodePage': The row takes ASCII only."},
      {with("\"cp1252\"", "\"cp\u00BC\""), "Row 'AnsiCodePage': The row takes ASCII only."},
      {with("msgstr \"Fehler\"", "msgstr \"Fehler\xFC\""), "The line isn't UTF-8."},
      {with("msgstr \"Fehler\"", "msgstr \"Fehler\\374\""), "The text isn't UTF-8."},
      {with("charset=UTF-8", "charset=ISO-8859-1"), "The header doesn't say charset=UTF-8."},
      {with("Language: de", "Language: nl"), "The header doesn't say Language: de."},
      {with("msgstr \"Fehler\"", "msgstr \"Fehler"), "A quote is missing at the end."},
      {with("msgstr \"Fehler\"", "msgstr[0] \"Fehler\""), "Nothing of the kind can stand here."},
      {with("msgstr \"Fehler\"", ""), "The entry before has no msgstr."},
      {with("msgstr \"Fehler\"", "msgstr \"\\0\""), "There is no such character."},
      {with("msgid \"\"\nmsgstr \"\"\n", ""), "A text stands by itself."},
      {"", "There is no header."},
  };
  for (const auto& c : cases) {
    EXPECT_NE(Refuse("de", c.text).find(c.reason), std::string::npos)
        << c.reason << " but: " << Refuse("de", c.text);
  }
  // What gettext's tools do to a file: line ends, splitting, escapes, comments, obsolete entries.
  const std::string rewritten =
      with("msgstr \"Fehler\"", "msgstr \"\"\r\n\t \"Fe\\x68\" \r\n\"l\\145r\"") +
      "\n# A word.\n#~ msgctxt \"Gone\"\n#~ msgid \"gone\"\n#~ msgstr \"fort\"\n";
  EXPECT_EQ(CompileCatalogue(GetTemplate(), "de", "F", rewritten),
            CompileCatalogue(GetTemplate(), "de", "F", german));
}

TEST(Template, IsRefusedWhereItIsNotTheBuiltInTable) {
  const std::string text = ReadText("objprobe.pot");
  const struct {
    const char* from;
    const char* to;
    const char* reason;
  } cases[] = {
      {"#. Row 22.", "#. Row 21.", "The row has another text in the program."},
      {"#. Row 22.", "#. Row 694.", "No comment says which row it is."},
      {"msgid \"Error\"", "msgid \"Eror\"", "The row has another text in the program."},
      {"#. Row 22.\nmsgctxt \"ErrorHeader\"\nmsgid \"Error\"\nmsgstr \"\"\n", "",
       "Row 22 is missing."},
      {"#. Row 38.", "#. Row 25.", "The row is there twice."},
  };
  for (const auto& c : cases) {
    std::string changed = text;
    Replace(changed, c.from, c.to);
    try {
      ReadTemplate("F", changed);
      ADD_FAILURE() << c.to;
    } catch (const BadFile& failure) {
      EXPECT_NE(std::string(failure.what()).find(c.reason), std::string::npos) << failure.what();
    }
  }
}

}  // namespace
}  // namespace ResourceTool
