#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <random>
#include <set>
#include <string>

#include "tests/core/xml/tree_text.h"

// Random documents, with a reference for each odd character, are read and written again by libxml2.
// What it writes must come back as the trees that were meant. Their content is such that the white
// space rules change nothing.

namespace {

class RandomDocument {
 public:
  explicit RandomDocument(unsigned int seed) : random_(seed) { AddElement(0, false); }

  const std::string& GetTree() const { return tree_; }
  // The document as libxml2 writes it, in UTF-8.
  std::string Rewrite() const {
    const std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> document(
        xmlReadMemory(text_.data(), static_cast<int>(text_.size()), nullptr, nullptr, 0),
        xmlFreeDoc);
    xmlChar* bytes = nullptr;
    int size = 0;
    xmlDocDumpMemoryEnc(document.get(), &bytes, &size, "UTF-8");
    std::string rewritten(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    xmlFree(bytes);
    return rewritten;
  }

 private:
  unsigned int Below(unsigned int limit) {
    return std::uniform_int_distribution<unsigned int>(0, limit - 1)(random_);
  }

  void AddBoth(const std::string& text) {
    text_ += text;
    tree_ += text;
  }
  static std::string Refer(char32_t character) {
    return "&#" + std::to_string(static_cast<unsigned int>(character)) + ";";
  }
  void AddCharacter() {
    static constexpr char32_t kFirst[] = {0x21, 0x21, 0x21, 0x3C, 0x7F, 0x400, 0xFF00, 0x1F600};
    static constexpr char32_t kCount[] = {0x5E, 0x5E, 0x5E, 1, 0x100, 0x100, 0xF0, 0x40};
    const unsigned int kind = Below(8);
    const char32_t character = kFirst[kind] + Below(kCount[kind]);
    text_ += Refer(character);
    if (character >= 0x10000) {
      tree_ += Refer((character - 0x10000) / 0x400 + 0xD800);
      tree_ += Refer((character - 0x10000) % 0x400 + 0xDC00);
    } else if (character >= 0x7F || character == '<' || character == '&' || character == '"') {
      tree_ += Refer(character);
    } else {
      tree_ += static_cast<char>(character);
    }
  }
  // With single blanks between them, or with any white space.
  void AddWords(bool any_space) {
    for (unsigned int left = 1 + Below(5); left != 0; --left) {
      for (unsigned int size = 1 + Below(20); size != 0; --size) AddCharacter();
      for (unsigned int run = any_space ? Below(4) : left > 1; run != 0; --run) {
        const char space = any_space ? " \t\n"[Below(3)] : ' ';
        text_ += space;
        tree_ += Refer(static_cast<char32_t>(space));
      }
    }
  }

  std::string MakeName() {
    static const std::string kLetters = "abcxyzABCXYZ_0189-.";
    std::string name(1, kLetters[Below(13)]);
    for (unsigned int left = Below(6); left != 0; --left) name += kLetters[Below(19)];
    return name;
  }

  void AddElement(unsigned int depth, bool preserve) {
    const std::string name = MakeName();
    std::set<std::string> names;
    for (unsigned int left = Below(4); left != 0; --left) names.insert(MakeName());
    AddBoth("<" + name);
    for (const std::string& attribute : names) {
      AddBoth(" " + attribute + "=\"");
      if (Below(5) != 0) AddWords(false);
      AddBoth("\"");
    }
    if (!preserve && Below(6) == 0) {
      preserve = true;
      AddBoth(" xml:space=\"preserve\"");
    }
    AddBoth(">");
    for (unsigned int left = depth < 6 ? Below(5) : 0; left != 0; --left) {
      switch (Below(6)) {
        case 0:
          text_ += "<!-- - c <&> -->";
          break;
        case 1:
          text_ += "<?pi <x?>";
          break;
        case 2:
          text_ += "<![CDATA[ <x>\t&]]>";
          tree_ += "&#32;&#60;x>&#9;&#38;";
          break;
        case 3:
          AddWords(preserve);
          break;
        default:
          AddElement(depth + 1, preserve);
          break;
      }
    }
    AddBoth("</" + name + ">");
  }

  std::mt19937 random_;
  std::string text_;
  std::string tree_;
};

TEST(SecondOpinion, RandomTreesComeBack) {
  std::ptrdiff_t tags = 0;
  for (unsigned int seed = 0; seed < 2000; ++seed) {
    const RandomDocument random(seed);
    const std::string document = random.Rewrite();
    ASSERT_EQ(TestSupport::ReadXml(document).ToString(), random.GetTree())
        << "seed " << seed << ": " << document;
    tags += std::count(random.GetTree().begin(), random.GetTree().end(), '<');
  }
  EXPECT_GT(tags, 5000);
}

}  // namespace
