#include "enterprise/serialize/base64.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "core/common/number_text.h"

namespace Serialization {
namespace {

using Bytes = std::vector<unsigned char>;

// The plain encoder stands against the one in blocks.
std::string EncodeSlowly(const Bytes& bytes) {
  std::string text(bytes.size() * 2 + 4, '\0');
  const char* const end = Common::Base64Encode(
      text.data(), bytes.data(), bytes.data() + bytes.size(), Common::kBase64Alphabet, true);
  text.resize(static_cast<std::size_t>(end - text.data()));
  return text;
}

TEST(Base64, AllSizesComeBack) {
  std::mt19937 random(1);
  for (std::size_t size = 0; size < 400; ++size) {
    Bytes bytes(size);
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
    OutputBuffer out;
    AppendBase64(out, bytes.data(), bytes.size());
    const std::string text(out.GetData(), out.GetSize());
    ASSERT_EQ(text, EncodeSlowly(bytes));

    Common::String wide(text.begin(), text.end());
    Bytes read;
    ASSERT_TRUE(ReadBase64(wide, read));
    ASSERT_EQ(read, bytes);
    for (int i = 0; i < 5; ++i) {
      wide.insert(random() % (wide.size() + 1), 1 + random() % 3, u" \t\r\n"[random() % 4]);
    }
    ASSERT_TRUE(ReadBase64(wide, read));
    ASSERT_EQ(read, bytes);
  }
}

TEST(Base64, IsReadStrictly) {
  const std::pair<const char16_t*, const char*> good[] = {
      // RFC 4648
      {u"", ""},
      {u"Zg==", "f"},
      {u"Zm8=", "fo"},
      {u"Zm9v", "foo"},
      {u"Zm9vYg==", "foob"},
      {u"Zm9vYmE=", "fooba"},
      {u"Zm9vYmFy", "foobar"},
      {u" Z\tm\n9\rv Y g = =\n", "foob"},
      // Bits behind the last byte
      {u"Zh==", "f"},
      {u"Zm9=", "fo"},
  };
  for (const auto& [text, bytes] : good) {
    Bytes read;
    EXPECT_TRUE(ReadBase64(text, read));
    EXPECT_EQ(std::string(read.begin(), read.end()), bytes);
  }
  for (const char16_t* const text : {u"Z", u"Zg", u"Zg=", u"Zm8", u"=", u"====", u"Z===",
                                     u"Zg==Zg==", u"Zm8=Z", u"Zg===", u"Zg=9", u"Zm9v="}) {
    Bytes read;
    EXPECT_FALSE(ReadBase64(text, read));
  }
}

// Each unit at each place of a text that is read in blocks and one by one.
TEST(Base64, OnlyTheAlphabetIsRead) {
  const Bytes bytes(75, 0x5A);
  const std::string text = EncodeSlowly(bytes);
  const std::string good = std::string(Common::kBase64Alphabet) + " \t\r\n";
  std::size_t read_count = 0;
  for (unsigned int unit = 0; unit <= 0xFFFF; ++unit) {
    for (const std::size_t at :
         {std::size_t{3}, std::size_t{31}, std::size_t{37}, std::size_t{98}}) {
      Common::String wide(text.begin(), text.end());
      wide[at] = static_cast<char16_t>(unit);
      Bytes read{1};
      const bool is_good = ReadBase64(wide, read);
      read_count += is_good;
      // White space in place of a character leaves a group too short.
      ASSERT_EQ(is_good, unit < 0x80 && good.find(static_cast<char>(unit)) < 64) << unit;
      if (!is_good) {
        ASSERT_EQ(read, Bytes{1});
      }
    }
  }
  EXPECT_EQ(read_count, 4u * 64);
}

}  // namespace
}  // namespace Serialization
