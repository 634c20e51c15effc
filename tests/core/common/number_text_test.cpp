#include "core/common/number_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "core/common/unix/program_path.h"
#include "tests/support/text.h"

namespace Common {
namespace {

constexpr std::uint64_t kUntouched = 77;
constexpr std::uint64_t kGreatest = 18446744073709551615u;

// What was read up to there stays where it fails.
void ExpectParsed(const char16_t* text, std::uint8_t radix, bool result, std::uint64_t expected) {
  std::uint64_t out = kUntouched;
  EXPECT_EQ(ParseNumber(&out, text, radix), result) << TestSupport::Utf8(text);
  EXPECT_EQ(out, expected) << TestSupport::Utf8(text);
}

TEST(ParseNumber, ReadsDecimalAndMarkedHexadecimalText) {
  const std::pair<const char16_t*, std::uint64_t> numbers[] = {
      {u"  12  ", 12},
      {u"1fH  ", 0x1F},
      {u"0h", 0},
      {u" 0Xabcdef", 0xABCDEF},
      {u"00x1F", 31},
      {u"0xFFFFFFFFFFFFFFFF", kGreatest},
      {u"FFFFFFFFFFFFFFFFh", kGreatest},
      {u"18446744073709551615", kGreatest},
  };
  for (const auto& [text, number] : numbers) ExpectParsed(text, 10, true, number);
  const std::pair<const char16_t*, std::uint64_t> others[] = {
      {u"", kUntouched},
      {u" ", 0},
      {u"h", 0},
      {u"x1", 0},
      {u"0x", 0},
      {u"1x1", 1},
      {u"0x0x1", 0},
      {u"0x1Fh", 31},
      {u"1F", 1},
      {u"1F h", 0x1F},
      {u"1hh", 1},
      {u"1h2", 1},
      {u"1 2", 1},
      {u"\t1", 0},
      {u"1\t", 1},
      {u"-1", 0},
      {u"1/", 1},
      {u"1:", 1},
      {u"1@h", 1},
      {u"1[h", 1},
      {u"1`h", 1},
      {u"1{h", 1},
      {u"1Gh", 1},
      {u"1\u0661", 1},
      // Too large: by the sum it holds the product, by the product what it was.
      {u"18446744073709551616", 18446744073709551610u},
      {u"99999999999999999999", 9999999999999999999u},
      {u"0x10000000000000000", 0x1000000000000000},
  };
  for (const auto& [text, number] : others) ExpectParsed(text, 10, false, number);
}

TEST(ParseNumber, OtherRadixesTakeNoMarks) {
  ExpectParsed(u" 17 ", 8, true, 15);
  ExpectParsed(u"xh", 36, true, 1205);
  ExpectParsed(u"000", 1, true, 0);
  ExpectParsed(u"1Fh", 16, false, 0x1F);
  ExpectParsed(u"0x1", 16, false, 0);
  ExpectParsed(u"18", 8, false, 1);
  ExpectParsed(u"0", 0, false, 0);
}

TEST(NumberText, IsWrittenWithoutASign) {
  EXPECT_EQ(NumberToDecimal(kGreatest), "18446744073709551615");
  EXPECT_EQ(NumberToHex(0xFEDCBA9876543210), "0xfedcba9876543210");
}

TEST(Base64Encode, WritesThePublishedVectors) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
      {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xFB\xFF\xBF\xFF", "+/+//w=="},
  };
  for (const auto& [bytes, padded] : cases) {
    const auto* begin = reinterpret_cast<const unsigned char*>(bytes.data());
    for (const bool pad : {true, false}) {
      std::string buffer(16, '#');
      char* end = Base64Encode(buffer.data(), begin, begin + bytes.size(), kBase64Alphabet, pad);
      EXPECT_EQ(std::string(buffer.data(), end), pad ? padded : padded.substr(0, padded.find('=')));
      EXPECT_EQ(*end, '#');
    }
  }
}

TEST(GuidText, GroupsAreLittleEndianInMemory) {
  Guid guid;
  for (unsigned char i = 0; i < 16; ++i) guid.bytes[i] = static_cast<unsigned char>(0xA0 + i);
  EXPECT_EQ(GuidToString(guid), "A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF");
  Guid read;
  EXPECT_TRUE(GuidFromString(read, "a3a2a1a0-a5a4-a7a6-a8a9-aaabacadaeaf} and more"));
  EXPECT_EQ(read, guid);
  EXPECT_TRUE(GuidFromString(read, "1-2-3-4 5-6 7 8 9 a b"));  // widths are upper limits
  EXPECT_EQ(GuidToString(read), "00000001-0002-0003-0405-060708090A0B");

  // What is no GUID leaves the value.
  for (const char* text :
       {"", "A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAE", "A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEG0",
        "{A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF}", "A3A2A1A0A5A4A7A6A8A9AAABACADAEAF"}) {
    EXPECT_FALSE(GuidFromString(guid, text)) << text;
  }
  testing::internal::CaptureStderr();
  EXPECT_FALSE(GuidFromString(guid, nullptr));
  EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("Assertion failed: t, file "));
  EXPECT_EQ(GuidToString(guid), "A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF");
}

TEST(ByteEscape, CoversTheUpperHalfAlone) {
  EXPECT_EQ(EscapeByte(0x7F), 0x7F);
  EXPECT_EQ(EscapeByte(0x80), 0xF880);
  EXPECT_EQ(EscapeByte(0xFF), 0xF8FF);
  EXPECT_TRUE(IsEscapedByte(0xF880) && IsEscapedByte(0xF8FF));
  EXPECT_FALSE(IsEscapedByte(0xF87F) || IsEscapedByte(0xF900) || IsEscapedByte(0x80));
  const std::string path = GetProgramPath();
  ASSERT_FALSE(path.empty());
  const String wide = GetProgramPathWide();
  ASSERT_EQ(wide.size(), path.size());
  for (std::size_t i = 0; i < path.size(); ++i) {
    EXPECT_EQ(wide[i], EscapeByte(static_cast<unsigned char>(path[i])));
  }
}

}  // namespace
}  // namespace Common
