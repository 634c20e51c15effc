#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/common/text.h"
#include "tests/enterprise/serialize/packet_support.h"

namespace Serialization {
namespace {

using namespace Packets;
using namespace std::string_literals;

// Writes all texts into one packet and reads them again.
template <class Text>
void ExpectSame(const std::vector<Text>& texts) {
  const std::unique_ptr<Deserializer> from = OpenPacket(WritePacket([&](Serializer& to) {
    for (const Text& text : texts) to.Write(MetaInfo("v"), text);
  }));
  for (const Text& text : texts) {
    Text read;
    from->Read(MetaInfo("v", true), read);
    ASSERT_EQ(read, text) << WriteValue(text);
  }
}

// Every unit, alone and in all company that matters to the two forms.
template <class Text>
std::vector<Text> MakeTexts(const std::vector<Text>& frames, unsigned int first,
                            unsigned int last) {
  using Char = typename Text::value_type;
  std::vector<Text> texts;
  for (const Text& frame : frames) {
    for (unsigned int unit = first; unit <= last; ++unit) {
      Text text = frame;
      std::replace(text.begin(), text.end(), Char{'?'}, static_cast<Char>(unit));
      texts.push_back(text);
    }
  }
  return texts;
}

TEST(XMLPacket, TextsComeBackUnitForUnit) {
  ExpectSame(MakeTexts<Common::String>({u"?", u"a?b", u" ? ", u"  ??  ", u"\n?", u"?\n]]",
                                        u"\n]]>?", u"]?>\n", u"?\xDC01", u"\xD801?"},
                                       0, 0xFFFF));
  // All bytes but 0.
  ExpectSame(
      MakeTexts<std::string>({"?", "a?b", " ? ", "  ??  ", "\n?", "]?>\n", "\n]]>?"}, 1, 0xFF));

  std::mt19937 random(3);
  const Common::String alphabet =
      u"ab<>&]] \t\r\n\"'\u00E9\u20AC\xD83D\xDE00\xFFFE\uFEFF\u0085\u00A0\u2028";
  std::vector<Common::String> texts(20000);
  for (Common::String& text : texts) {
    const std::size_t size = random() % 40;
    const std::size_t used = 1 + random() % alphabet.size();
    while (text.size() < size) text += alphabet[random() % used];
  }
  // Longer than the pieces in which texts are written and read.
  for (const std::size_t size : {511u, 512u, 513u, 32767u, 40000u, 70001u}) {
    for (const char16_t* unit : {u"x", u" ", u"\n", u"\u20AC", u"\U0001F600", u"\xD83D"}) {
      Common::String text;
      while (text.size() < size) text += unit;
      texts.push_back(text);
    }
  }
  ExpectSame(texts);
}

// The texts of the values of a packet, as another library reads them.
std::vector<Common::String> ReadElsewhere(const std::string& packet) {
  const std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> document(
      xmlReadMemory(packet.data(), static_cast<int>(packet.size()), "packet.xml", nullptr,
                    XML_PARSE_NOCDATA | XML_PARSE_HUGE | XML_PARSE_NONET),
      &xmlFreeDoc);
  std::vector<Common::String> texts;
  if (document == nullptr) return texts;
  const xmlNode* node = xmlDocGetRootElement(document.get())->children;
  for (; node != nullptr; node = node->next) {
    EXPECT_TRUE(node->children == nullptr || node->children->next == nullptr);
    const xmlChar* const text = node->children != nullptr ? node->children->content : nullptr;
    texts.push_back(Common::Utf8ToString(text ? reinterpret_cast<const char*>(text) : ""));
  }
  return texts;
}

// Characters that XML allows; "]]>" outside of CDATA isn't among what it does.
Common::String MakeLegalText(std::mt19937& random) {
  const Common::String alphabet = u"abc \t\r\n<&>\"' ]\u00E9\u0085\u20AC\uFFFD\uE000";
  Common::String text;
  for (std::size_t left = random() % 30; left != 0; --left) {
    const char16_t unit = alphabet[random() % alphabet.size()];
    if (unit == u'>' && text.ends_with(u"]]")) text += u'x';
    text += unit;
    if (random() % 10 == 0) text += u"\U0001F600";
  }
  return text;
}

TEST(XMLPacket, AnotherLibraryReadsTheSameTexts) {
  // All characters that XML allows, in both forms.
  std::vector<Common::String> texts;
  for (const Common::String& text :
       MakeTexts<Common::String>({u"x?y", u" ? ", u"x?\n"}, 9, 0xFFFD)) {
    const char16_t unit = text[1];
    if (unit < u' ' && unit != u'\t' && unit != u'\n' && unit != u'\r') continue;
    if ((unit & 0xF800) != 0xD800) texts.push_back(text);
  }
  std::mt19937 random(4);
  for (int i = 0; i < 5000; ++i) texts.push_back(MakeLegalText(random));
  EXPECT_TRUE(ReadElsewhere(WritePacket([&](Serializer& to) {
                for (const Common::String& text : texts) to.Write(MetaInfo("v"), text);
              })) == texts);
}

}  // namespace
}  // namespace Serialization
