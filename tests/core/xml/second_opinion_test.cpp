#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <memory>
#include <random>
#include <set>
#include <string>

#include "tests/core/xml/tree_text.h"

// Documents with random trees that libxml2 writes must come back as these trees. Their content is
// such that the white space rules change nothing.

namespace {

struct FreeDocument {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};

class RandomTree {
 public:
  explicit RandomTree(unsigned int seed) : random_(seed), document_(xmlNewDoc(Bytes("1.0"))) {
    xmlNode* const root = MakeElement(0, false);
    xmlDocSetRootElement(document_.get(), root);
    expected_ = text_;
  }

  const std::string& GetExpected() const { return expected_; }
  // Indentation would add white space, but what stands between elements is folded away only where
  // there is no text; so there is none.
  std::string GetDocument() {
    xmlChar* bytes = nullptr;
    int size = 0;
    xmlDocDumpMemoryEnc(document_.get(), &bytes, &size, "UTF-8");
    std::string document(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
    xmlFree(bytes);
    return document;
  }

 private:
  static const xmlChar* Bytes(const std::string& text) {
    return reinterpret_cast<const xmlChar*>(text.c_str());
  }

  unsigned int Below(unsigned int limit) {
    return std::uniform_int_distribution<unsigned int>(0, limit - 1)(random_);
  }

  std::string MakeName() {
    static const std::string kLetters = "abcxyzABCXYZ_";
    static const std::string kMore = kLetters + "0189-.";
    std::string name(1, kLetters[Below(13)]);
    for (unsigned int left = Below(6); left != 0; --left) name += kMore[Below(19)];
    return name;
  }

  // A character but white space, as UTF-8; what the tree's text has for it goes behind `written`.
  std::string MakeCharacter(std::string& written) {
    static constexpr char32_t kFirst[] = {0x21, 0x21, 0x21, 0x3C, 0x7F, 0x400, 0xFF00, 0x1F600};
    static constexpr char32_t kCount[] = {0x5E, 0x5E, 0x5E, 1, 0x100, 0x100, 0xF0, 0x40};
    const unsigned int kind = Below(8);
    const char32_t character = kFirst[kind] + Below(kCount[kind]);
    const auto reference = [&written](char32_t unit) {
      written += "&#" + std::to_string(static_cast<unsigned int>(unit)) + ";";
    };
    std::string bytes;
    if (character < 0x80) {
      bytes = std::string(1, static_cast<char>(character));
      if (character == '<' || character == '&' || character == '"' || character == 0x7F) {
        reference(character);
      } else {
        written += bytes;
      }
      return bytes;
    }
    if (character < 0x800) {
      bytes += static_cast<char>(0xC0 | character >> 6);
    } else if (character < 0x10000) {
      bytes += static_cast<char>(0xE0 | character >> 12);
      bytes += static_cast<char>(0x80 | (character >> 6 & 0x3F));
    } else {
      bytes += static_cast<char>(0xF0 | character >> 18);
      bytes += static_cast<char>(0x80 | (character >> 12 & 0x3F));
      bytes += static_cast<char>(0x80 | (character >> 6 & 0x3F));
      reference((character - 0x10000) / 0x400 + 0xD800);
      reference((character - 0x10000) % 0x400 + 0xDC00);
    }
    bytes += static_cast<char>(0x80 | (character & 0x3F));
    if (character < 0x10000) reference(character);
    return bytes;
  }

  // Words with single blanks between them, or with any white space.
  std::string MakeWords(bool any_space) {
    static const std::string kSpace = " \t\n";
    std::string words;
    for (unsigned int left = 1 + Below(5); left != 0; --left) {
      for (unsigned int size = 1 + Below(20); size != 0; --size) words += MakeCharacter(text_);
      for (unsigned int run = any_space ? Below(4) : left > 1; run != 0; --run) {
        const char space = any_space ? kSpace[Below(3)] : ' ';
        words += space;
        text_ += "&#" + std::to_string(space) + ";";
      }
    }
    return words;
  }

  xmlNode* MakeElement(unsigned int depth, bool preserve) {
    const std::string name = MakeName();
    xmlNode* const node = xmlNewDocNode(document_.get(), nullptr, Bytes(name), nullptr);
    std::set<std::string> names;
    for (unsigned int left = Below(4); left != 0; --left) names.insert(MakeName());
    if (!preserve && Below(6) == 0) {
      preserve = true;
      names.insert("xml:space");
    }
    text_ += "<" + name;
    for (const std::string& attribute : names) {
      text_ += " " + attribute + "=\"";
      std::string value = "preserve";
      if (attribute == "xml:space") {
        text_ += value;
      } else {
        value = Below(5) == 0 ? "" : MakeWords(false);
      }
      text_ += "\"";
      xmlNewProp(node, Bytes(attribute), Bytes(value));
    }
    text_ += ">";
    for (unsigned int left = depth < 6 ? Below(5) : 0; left != 0; --left) {
      xmlNode* child = nullptr;
      switch (Below(6)) {
        case 0:
          child = xmlNewDocComment(document_.get(), Bytes(" - c <&> "));
          break;
        case 1:
          child = xmlNewDocPI(document_.get(), Bytes("pi"), Bytes("<x"));
          break;
        case 2: {
          const std::string words = MakeWords(true);
          child = xmlNewCDataBlock(document_.get(), Bytes(words), static_cast<int>(words.size()));
          break;
        }
        case 3: {
          const std::string words = MakeWords(preserve);
          child = xmlNewDocText(document_.get(), Bytes(words));
          break;
        }
        default:
          child = MakeElement(depth + 1, preserve);
          break;
      }
      // Neighbouring texts are merged, and none of them is the new one then.
      xmlAddChild(node, child);
    }
    text_ += "</" + name + ">";
    return node;
  }

  std::mt19937 random_;
  std::unique_ptr<xmlDoc, FreeDocument> document_;
  std::string text_;
  std::string expected_;
};

TEST(SecondOpinion, RandomTreesComeBack) {
  std::size_t elements = 0;
  for (unsigned int seed = 0; seed < 2000; ++seed) {
    RandomTree tree(seed);
    const std::string document = tree.GetDocument();
    ASSERT_EQ(TestSupport::ReadXml(document).ToString(), tree.GetExpected())
        << "seed " << seed << ": " << document;
    elements += static_cast<std::size_t>(
        std::count(tree.GetExpected().begin(), tree.GetExpected().end(), '<'));
  }
  EXPECT_GT(elements, 5000u);
}

}  // namespace
