#include "core/file/unix/file_name.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/file/unix/icu_file_name.h"

namespace Core {
namespace {

// The encoding of the program's own is that of the library on this platform.
static_assert(U_CHARSET_IS_UTF8);

class Encoding {
 public:
  explicit Encoding(const char* name) : converter_(name) { SetFileNameConverter(&converter_); }
  ~Encoding() { SetFileNameConverter(nullptr); }

 private:
  icu_file_name_converter converter_;
};

// All names of one and two bytes, and long ones in which there is some of everything.
std::vector<std::string> MakeNames() {
  std::vector<std::string> names;
  for (int first = 0; first != 256; ++first) {
    names.push_back({static_cast<char>(first)});
    for (int second = 0; second != 256; ++second) {
      names.push_back({static_cast<char>(first), static_cast<char>(second)});
    }
  }
  static const std::string kPieces[] = {
      "a/..",         "\xC3\xA4",     "\xE2\x82\xAC",  "\xF0\x9F\x98\x80", "\xED\xA0\x80",
      "\xC0\xAF",     "\xF4\x90\x80", "\xE2\x82",      "\xF0\x9F",         "\xEF\xBB\xBF",
      "\xEF\xBF\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF ", "\xFE\xFF",         "\xEF\xA2\x7F",
      "\xEE\xBF\xBF", {1, 0, 0x7F}};
  std::mt19937 random(20240607);
  for (int i = 0; i != 4'000; ++i) {
    std::string name;
    const std::size_t size = random() % 300;
    while (name.size() < size) {
      if (random() % 3 == 0) {
        name.append(kPieces[random() % std::size(kPieces)]);
      } else {
        name.push_back(static_cast<char>(random()));
      }
    }
    names.push_back(name);
  }
  return names;
}

// Whether an encoded character of the escape's is in it: those don't come back.
bool HoldsEscape(const std::string& name) {
  for (std::size_t i = 0; i + 2 < name.size(); ++i) {
    const std::string_view head(name.data() + i, 2);
    if ((head == "\xEF\xA2" || head == "\xEF\xA3") && (name[i + 2] & 0xC0) == 0x80) return true;
  }
  return false;
}

TEST(FileNames, KeepBytesThatAreNoText) {
  static const struct {
    std::string name;
    std::u16string text;
  } kNames[] = {
      {"", u""},
      {"a\x01/~\x7F", u"a\x01/~\x7F"},
      {std::string("a\0b", 3), std::u16string(u"a\0b", 3)},
      {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", u"\u00E4\u20AC\U0001F600"},
      {"\xEF\xBB\xBF\xEF\xBF\xBF", u"\uFEFF\uFFFF"},
      {"\x80\xFF", u"\uF880\uF8FF"},
      {"\xE2(\xA1", u"\uF8E2(\uF8A1"},                              // cut by another character
      {"\xF0\x9F\x98", u"\uF8F0\uF89F\uF898"},                      // and by the end
      {"\xC0\xAF\xE0\x80\xAF", u"\uF8C0\uF8AF\uF8E0\uF880\uF8AF"},  // longer than needed
      {"\xED\xA0\x80\xED\x9F\xBF", u"\uF8ED\uF8A0\uF880\uD7FF"},    // a surrogate
      {"\xF4\x90\x80\x80\xF4\x8F\xBF\xBF", u"\uF8F4\uF890\uF880\uF880\U0010FFFF"},
      {std::string(255, '\xFC'), std::u16string(255, u'\uF8FC')},
  };
  for (const auto& [name, text] : kNames) {
    EXPECT_EQ(FileNameToText(name), text) << name;
    EXPECT_EQ(TextToFileName(text), name) << name;
  }
  // Escapes of encoded text are its bytes; encoded escapes are taken for raw bytes.
  EXPECT_EQ(TextToFileName(u"x\uF8C3\uF8A4\u00E4"), "x\xC3\xA4\xC3\xA4");
  EXPECT_EQ(FileNameToText("\xEF\xA2\x80"), u"\uF880");
  EXPECT_EQ(TextToFileName(u"\uF880"), "\x80");
  EXPECT_EQ(TextToFileName(u"\uF87F\uF900"), "\xEF\xA1\xBF\xEF\xA4\x80");
  for (const char16_t* const text : {u"\u00E4\xD800", u"\xDC00z", u"\xD800\uF880\xDC00"}) {
    EXPECT_EQ(TextToFileName(text), "");
  }
}

TEST(FileNames, ComeBackInEveryEncoding) {
  const std::vector<std::string> names = MakeNames();
  std::vector<Common::String> texts;
  for (const std::string& name : names) {
    texts.push_back(FileNameToText(name));
    if (!HoldsEscape(name)) {
      ASSERT_EQ(TextToFileName(texts.back()), name);
    }
  }
  for (const char* const encoding : {static_cast<const char*>(nullptr), "UTF-8"}) {
    const Encoding installed(encoding);
    for (std::size_t i = 0; i != names.size(); ++i) {
      ASSERT_EQ(FileNameToText(names[i]), texts[i]) << names[i];
      if (!HoldsEscape(names[i])) {
        ASSERT_EQ(TextToFileName(texts[i]), names[i]);
      }
    }
  }
  for (const char* const encoding : {"ISO-8859-1", "US-ASCII"}) {
    const Encoding installed(encoding);
    for (const std::string& name : names) ASSERT_EQ(TextToFileName(FileNameToText(name)), name);
    EXPECT_EQ(TextToFileName(u"\uF8E4\u20AC"), "");
  }
  const Encoding installed("ISO-8859-1");
  EXPECT_EQ(FileNameToText("\xE4\x80"), u"\u00E4\u0080");
  EXPECT_EQ(TextToFileName(u"\u00E4\uF8E4"), "\xE4\xE4");
}

TEST(FileNames, OfAnyTextAreTheLibrarysOwn) {
  std::mt19937 random(7);
  std::vector<Common::String> texts;
  for (int i = 0; i != 0x10000; ++i) texts.push_back({static_cast<char16_t>(i)});
  for (int i = 0; i != 4'000; ++i) {
    Common::String text;
    for (std::size_t size = random() % 40; text.size() < size;) {
      static const unsigned int kRanges[][2] = {
          {0, 0x7F}, {0x80, 0x7FF}, {0x800, 0xFFFF}, {0xF870, 0xF910}, {0xD800, 0xDFFF}};
      const auto& range = kRanges[random() % 5];
      text.push_back(static_cast<char16_t>(range[0] + random() % (range[1] - range[0] + 1)));
      if ((text.back() & 0xFC00) == 0xD800 && random() % 8 != 0) {
        text.push_back(static_cast<char16_t>(0xDC00 + random() % 0x400));
      }
    }
    texts.push_back(text);
  }
  std::vector<std::string> names;
  for (const Common::String& text : texts) names.push_back(TextToFileName(text));
  const Encoding installed(nullptr);
  for (std::size_t i = 0; i != texts.size(); ++i) ASSERT_EQ(TextToFileName(texts[i]), names[i]);
}

TEST(FileNames, OpenAnEncodingWhenTheyNeedOne) {
  const Encoding unknown("no such encoding");
  EXPECT_EQ(TextToFileName(u"plain\uF8FF"), "plain\xFF");
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(TextToFileName(u"\u00E4"), "");
  EXPECT_DEATH(FileNameToText("\xE4"), "");
}

TEST(FileNames, OfManyThreadsShareAConverter) {
  const Encoding installed("ISO-8859-1");
  std::vector<std::thread> threads;
  for (int i = 0; i != 4; ++i) {
    threads.emplace_back([i] {
      // More than a block, so that a conversion takes several steps.
      const std::string name(1500, static_cast<char>(0xE0 + i));
      const std::u16string text(1500, static_cast<char16_t>(0xE0 + i));
      for (int round = 0; round != 200; ++round) {
        EXPECT_EQ(FileNameToText(name), text);
        EXPECT_EQ(TextToFileName(text), name);
        EXPECT_EQ(TextToFileName(u"ab\uF8E4"), "ab\xE4");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace Core
