#include "core/common/text.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace Common {
namespace {

using std::string_literals::operator""s;

std::string Utf8(const String& text) {
  std::string out = "old";
  EXPECT_TRUE(ToUtf8(out, text.data(), text.size()));
  return out;
}

TEST(ToUtf16, DecodesAndSubstitutes) {
  const struct {
    std::string input;
    String expected;
    bool clean;
  } cases[] = {
      {"", u"", true},
      {"a\x7F", u"a\x7F", true},
      {"\xED\xA0\x80\xED\xBF\xBF", {0xD800, 0xDFFF}, true},
      // longer than needed: stored
      {"\xC0\x80", {0}, false},
      {"\xC1\xBF!", u"\x7F!", false},
      {"\xE0\x9F\xBF", {0x7FF}, false},
      {"\xF0\x8F\xBF\xBF", {0xFFFF}, false},
      {"\xF0\x8D\xA0\x80", {0xD800}, false},
      // too large: four bytes used up
      {"\xF4\x90\x80\x80!", {0xFFFD, u'!'}, false},
      // no lead
      {"\x80", {0xFFFD}, false},
      {"a\xBF\xBF", {u'a', 0xFFFD, 0xFFFD}, false},
      {"\xF8\x80", {0xFFFD, 0xFFFD}, false},
      // cut short
      {"\xE2\x82", {0xFFFD, 0xFFFD}, false},
      {"\xF0\x9F\x98", {0xFFFD, 0xFFFD, 0xFFFD}, false},
      {"\xE2\x82\x41", {0xFFFD, 0xFFFD, u'A'}, false},
      {"\xE2\x41\x82", {0xFFFD, u'A', 0xFFFD}, false},
      {"\xF0\x9F\xC3\xA9", {0xFFFD, 0xFFFD, 0xE9}, false},
  };
  for (const auto& row : cases) {
    String out = u"old";
    EXPECT_EQ(ToUtf16(out, row.input.c_str()), row.clean) << &row - cases;
    EXPECT_TRUE(out == row.expected) << &row - cases;
    String bounded = u"old";
    EXPECT_EQ(ToUtf16(bounded, row.input.data(), row.input.size()), row.clean) << &row - cases;
    EXPECT_TRUE(bounded == row.expected) << &row - cases;
  }
}

TEST(ToUtf16, StopsAtTheLengthAndAtTheFirstZero) {
  String out;
  EXPECT_FALSE(ToUtf16(out, "a\xC3\xA9", 2));
  EXPECT_EQ(out, u"a\uFFFD");
  EXPECT_TRUE(ToUtf16(out, "ab\0cd", 5));
  EXPECT_EQ(out, u"ab");
  EXPECT_FALSE(ToUtf16(out, "\xE2\x82\0\xAC", 4));
  EXPECT_EQ(out, u"\uFFFD\uFFFD");
  EXPECT_TRUE(ToUtf16(out, "abc", 0));
  EXPECT_EQ(out, u"");
  EXPECT_TRUE(ToUtf16(out, nullptr));
  EXPECT_EQ(Utf8ToString(nullptr), u"");
  EXPECT_EQ(Utf8ToString("\xC3\xA9"), u"\u00E9");
}

TEST(ToUtf8, EncodesAndLetsLoneSurrogatesThrough) {
  const struct {
    String input;
    std::string expected;
  } cases[] = {
      {u"", ""},
      {{0xDC00}, "\xED\xB0\x80"},
      {{0xD800, u'a'},
       "\xED\xA0\x80"
       "a"},
      {{0xD83D, 0xD83D, 0xDE00}, "\xED\xA0\xBD\xF0\x9F\x98\x80"},
      {{0xDE00, 0xD83D}, "\xED\xB8\x80\xED\xA0\xBD"},
  };
  for (const auto& row : cases) EXPECT_EQ(Utf8(row.input), row.expected) << &row - cases;
  // A partner behind the length is none; a 0 ends the text within the length too.
  std::string out;
  EXPECT_TRUE(ToUtf8(out, u"\U0001F600", 1));
  EXPECT_EQ(out, "\xED\xA0\xBD");
  EXPECT_TRUE(ToUtf8(out, u"ab\0cd", 5));
  EXPECT_EQ(out, "ab");
  EXPECT_TRUE(ToUtf8(out, u"caf\u00E9"));
  EXPECT_EQ(out, "caf\xC3\xA9");
  EXPECT_TRUE(ToUtf8(out, nullptr));
  EXPECT_EQ(out, "");
}

TEST(TextConversion, AgreesWithTheConverterOfTheLibraryOnEveryCharacter) {
  std::u32string all;
  for (char32_t c = 1; c < 0x110000; ++c) {
    if (c < 0xD800 || c > 0xDFFF) all.push_back(c);
  }
  const std::filesystem::path judge(all);
  const std::string utf8 = judge.string();
  const String utf16 = judge.u16string();
  ASSERT_EQ(utf16.size(), all.size() + 0x100000);
  String wide;
  EXPECT_TRUE(ToUtf16(wide, utf8.data(), utf8.size()));
  EXPECT_TRUE(wide == utf16);
  EXPECT_TRUE(ToUtf16(wide, utf8.c_str()));
  EXPECT_TRUE(wide == utf16);
  EXPECT_TRUE(Utf8(utf16) == utf8);
}

// Blocks and pieces have ends: one odd character at every place of texts around those sizes.
TEST(TextConversion, TakesAnyCharacterAtAnyPlace) {
  const struct {
    std::string utf8;
    String utf16;
  } odd[] = {{"\xC3\xA9", u"\u00E9"},
             {"\xE4\xB8\xAD", u"\u4E2D"},
             {"\xF0\x9F\x98\x80", u"\U0001F600"},
             {"\xC3\xA9x\xC3\xA9", u"\u00E9x\u00E9"}};
  for (const auto& row : odd) {
    for (const std::size_t size :
         {0u, 1u, 7u, 8u, 9u, 15u, 16u, 17u, 24u, 31u, 33u, 47u, 2050u, 4100u}) {
      const std::size_t first = size < 100 ? 0 : size - 60;
      for (std::size_t at = first; at <= size; ++at) {
        std::string utf8(size, 'a');
        String utf16(size, u'a');
        utf8.insert(at, row.utf8);
        utf16.insert(at, row.utf16);
        String wide;
        ASSERT_TRUE(ToUtf16(wide, utf8.data(), utf8.size()));
        ASSERT_TRUE(wide == utf16) << size << " " << at;
        ASSERT_TRUE(Utf8(utf16) == utf8) << size << " " << at;
        // The same place with its last byte gone.
        utf8.erase(at + row.utf8.size() - 1, 1);
        ASSERT_FALSE(ToUtf16(wide, utf8.data(), utf8.size())) << size << " " << at;
        ASSERT_EQ(wide.size(), row.utf8 == "\xC3\xA9x\xC3\xA9" ? size + 3 : utf8.size());
      }
    }
  }
}

// Texts that end where the readable memory ends.
TEST(TextConversion, ReadsNothingBehindTheText) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* memory =
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  char* end = static_cast<char*>(memory) + page;
  ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
  constexpr std::size_t kBeyond = 1000;
  for (std::size_t size = 0; size <= 70; ++size) {
    std::memset(memory, 'a', page);
    String wide;
    ToUtf16(wide, end - size, size);
    ASSERT_EQ(wide, String(size, u'a'));
    end[-1] = '\0';
    ToUtf16(wide, end - size - 1);
    ASSERT_EQ(wide.size(), size);
    ToUtf16(wide, end - size - 1, kBeyond);
    ASSERT_EQ(wide.size(), size);
    end[-2] = '\xE2';  // the terminator stands within a sequence
    ToUtf16(wide, end - size - 1);
    ASSERT_EQ(wide.size(), size);

    auto* units_end = reinterpret_cast<char16_t*>(end);
    std::fill(reinterpret_cast<char16_t*>(memory), units_end, u'a');
    std::string narrow;
    ToUtf8(narrow, units_end - size, size);
    ASSERT_EQ(narrow, std::string(size, 'a'));
    units_end[-1] = 0;
    ToUtf8(narrow, units_end - size - 1);
    ASSERT_EQ(narrow.size(), size);
    ToUtf8(narrow, units_end - size - 1, kBeyond);
    ASSERT_EQ(narrow.size(), size);
  }
  munmap(memory, 2 * page);
}

TEST(TextConversion, WidensAndNarrowsArrays) {
  EXPECT_EQ(WidenAscii(nullptr), nullptr);
  EXPECT_EQ(NarrowLowBytes(nullptr), nullptr);
  EXPECT_EQ(WidenAscii("a\x80\xFF").get(), String({u'a', 0x80, 0xFF}));
  EXPECT_EQ(NarrowLowBytes(String({u'a', 0x1FF, 0x80}).c_str()).get(), "a\xFF\x80"s);
}

}  // namespace
}  // namespace Common
