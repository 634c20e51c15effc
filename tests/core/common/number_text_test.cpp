#include "core/common/number_text.h"

#include <gtest/gtest.h>

#include <cstring>

#include "core/common/text.h"
#include "core/common/unix/program_path.h"

namespace Common {
namespace {

constexpr std::uint64_t kUntouched = 77;

TEST(ParseNumber, ReadsDecimalAndMarkedHexadecimalText) {
  const struct {
    const char16_t* text;
    bool result;
    std::uint64_t out;
  } cases[] = {
      {u"12", true, 12},
      {u"  12  ", true, 12},
      {u"007", true, 7},
      {u"1Fh", true, 0x1F},
      {u"1fH  ", true, 0x1F},
      {u"0h", true, 0},
      {u"0x1F", true, 0x1F},
      {u" 0Xabcdef", true, 0xabcdef},
      {u"00x1F", true, 31},
      {u"0x0", true, 0},
      {u"12h", true, 0x12},
      {u"18446744073709551615", true, 18446744073709551615u},
      {u"0xFFFFFFFFFFFFFFFF", true, 18446744073709551615u},
      {u"FFFFFFFFFFFFFFFFh", true, 18446744073709551615u},
      // No number: what was read up to there.
      {u"", false, kUntouched},
      {u" ", false, 0},
      {u"   ", false, 0},
      {u"h", false, 0},
      {u"h ", false, 0},
      {u" h", false, 0},
      {u"x1", false, 0},
      {u"0x", false, 0},
      {u"0x ", false, 0},
      {u"1x1", false, 1},
      {u"0x0x1", false, 0},
      {u"0x1Fh", false, 31},
      {u"0xh", false, 0},
      {u"1F", false, 1},
      {u"1F h", false, 0x1F},
      {u"1 h", false, 1},
      {u"1hh", false, 1},
      {u"1h2", false, 1},
      {u"1h h", false, 1},
      {u"1 2", false, 1},
      {u"1 x", false, 1},
      {u"\t1", false, 0},
      {u"1\t", false, 1},
      {u"-1", false, 0},
      {u"+1", false, 0},
      {u"1.5", false, 1},
      {u"1/", false, 1},
      {u"1:", false, 1},
      {u"1@h", false, 1},
      {u"1[h", false, 1},
      {u"1`h", false, 1},
      {u"1{h", false, 1},
      {u"1Gh", false, 1},
      {u"1\u0661", false, 1},
      // Too large: by the sum it holds the product, by the product what it was.
      {u"18446744073709551616", false, 18446744073709551610u},
      {u"99999999999999999999", false, 9999999999999999999u},
      {u"0x10000000000000000", false, 0x1000000000000000},
  };
  for (const auto& row : cases) {
    std::uint64_t out = kUntouched;
    std::string text;
    ToUtf8(text, row.text);
    EXPECT_EQ(ParseNumber(&out, row.text, 10), row.result) << text;
    EXPECT_EQ(out, row.out) << text;
  }
}

TEST(ParseNumber, OtherRadixesTakeNoMarks) {
  const struct {
    std::uint8_t radix;
    const char16_t* text;
    bool result;
    std::uint64_t out;
  } cases[] = {
      {16, u"1F", true, 0x1F}, {16, u"1Fh", false, 0x1F}, {16, u"0x1", false, 0},
      {8, u" 17 ", true, 15},  {8, u"18", false, 1},      {2, u"101", true, 5},
      {36, u"xh", true, 1205}, {16, u"", false, 0},       {0, u"0", false, 0},
      {1, u"000", true, 0},
  };
  for (const auto& row : cases) {
    std::uint64_t out = kUntouched;
    EXPECT_EQ(ParseNumber(&out, row.text, row.radix), row.result) << &row - cases;
    EXPECT_EQ(out, row.out) << &row - cases;
  }
}

TEST(NumberText, WritesDecimalAndHexadecimal) {
  EXPECT_EQ(NumberToDecimal(0), "0");
  EXPECT_EQ(NumberToDecimal(18446744073709551615u), "18446744073709551615");
  EXPECT_EQ(NumberToHex(0), "0x0");
  EXPECT_EQ(NumberToHex(0xFEDCBA9876543210), "0xfedcba9876543210");
}

TEST(Base64Encode, WritesThePublishedVectors) {
  const struct {
    std::string bytes;
    const char* padded;
    const char* bare;
  } cases[] = {
      {"", "", ""},
      {"f", "Zg==", "Zg"},
      {"fo", "Zm8=", "Zm8"},
      {"foo", "Zm9v", "Zm9v"},
      {"foob", "Zm9vYg==", "Zm9vYg"},
      {"fooba", "Zm9vYmE=", "Zm9vYmE"},
      {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
      {"\xFB\xFF\xBF\xFF", "+/+//w==", "+/+//w"},
  };
  for (const auto& row : cases) {
    const auto* begin = reinterpret_cast<const unsigned char*>(row.bytes.data());
    char buffer[16];
    for (const bool pad : {true, false}) {
      std::memset(buffer, '#', sizeof buffer);
      char* end = Base64Encode(buffer, begin, begin + row.bytes.size(), kBase64Alphabet, pad);
      EXPECT_EQ(std::string(buffer, end), pad ? row.padded : row.bare);
      EXPECT_EQ(*end, '#');
    }
  }
}

TEST(GuidText, GroupsAreLittleEndianInMemory) {
  Guid guid;
  for (unsigned char i = 0; i < 16; ++i) guid.bytes[i] = static_cast<unsigned char>(0xA0 + i);
  EXPECT_EQ(GuidToString(guid), "A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF");
  EXPECT_EQ(GuidToString(Guid()), "00000000-0000-0000-0000-000000000000");

  for (const char* text :
       {"A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF", "a3a2a1a0-a5a4-a7a6-a8a9-aaabacadaeaf} and more"}) {
    Guid read;
    EXPECT_TRUE(GuidFromString(read, text));
    EXPECT_EQ(read, guid);
  }
  Guid read;
  EXPECT_TRUE(GuidFromString(read, "1-2-3-4 5-6 7 8 9 a b"));  // widths are upper limits
  EXPECT_EQ(GuidToString(read), "00000001-0002-0003-0405-060708090A0B");
}

TEST(GuidText, WhatIsNoGuidLeavesTheValue) {
  Guid guid;
  guid.SetFirst(1);
  const Guid before = guid;
  for (const char* text :
       {"", "A3A2A1A0", "A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAE",
        "A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEG0", "{A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF}",
        "A3A2A1A0A5A4A7A6A8A9AAABACADAEAF"}) {
    EXPECT_FALSE(GuidFromString(guid, text)) << text;
    EXPECT_EQ(guid, before);
  }
  testing::internal::CaptureStderr();
  EXPECT_FALSE(GuidFromString(guid, nullptr));
  EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("Assertion failed: t, file "));
  EXPECT_EQ(guid, before);
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
