#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/text.h"
#include "core/file/memory_file.h"
#include "core/xml/simple_reader.h"
#include "core/xml/xml_tag.h"
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

// What is read as `Read` of a packet of one value.
template <class Read, class Written>
Read PassAs(const Written& written) {
  Read read{};
  OpenElements(WriteValue(written))->Read(MetaInfo("v"), read);
  return read;
}

// What doesn't come back, and why.
TEST(XMLPacket, SomeValuesDoNotComeBack) {
  // 8-bit text is read up to its first 0.
  EXPECT_EQ(PassAs<std::string>("ab\0c"s), "ab");
  // 16-bit text that is read as 8-bit text keeps the low byte of each unit.
  EXPECT_EQ(PassAs<std::string>(u"\u0161b\u0200c"s), "ab");
  // 17 digits tell all doubles apart, 16 don't.
  EXPECT_EQ(PassAs<double>(0.1 + 0.2), 0.3);
  // An integer is cut to the type that it is read as.
  EXPECT_EQ(PassAs<unsigned char>(259), 3);
  // Values without a name run together, and behind a child nobody looks for them.
  const std::unique_ptr<Deserializer> from = OpenElements(WriteElements([](Serializer& to) {
    to.Write(MetaInfo(), u"a"s);
    to.Write(MetaInfo(), "b"s);
    to.Write(MetaInfo("v"), 1);
    to.Write(MetaInfo(), 2);
  }));
  Common::String text;
  from->Read(MetaInfo(), text);
  EXPECT_EQ(text, u"ab");
}

const char* Chars(const xmlChar* text) {
  return reinterpret_cast<const char*>(text);
}

// Compares a tag with what another library reads.
void ExpectSameTree(const Core::XmlTag& ours, const xmlNode& theirs) {
  ASSERT_EQ(ours.GetName(), Chars(theirs.name));
  std::size_t count = 0;
  for (const xmlAttr* at = theirs.properties; at != nullptr; at = at->next, ++count) {
    const Core::XmlAttribute* const attribute = ours.FindAttribute(Chars(at->name));
    ASSERT_NE(attribute, nullptr);
    EXPECT_EQ(attribute->GetValue(), Common::Utf8ToString(Chars(at->children->content)));
  }
  EXPECT_EQ(ours.GetAttributes().count, count);
  const Core::XmlTag* child = nullptr;  // behind which the text stands
  Common::String text;
  for (const xmlNode* at = theirs.children;; at = at->next) {
    if (at != nullptr && at->type != XML_ELEMENT_NODE) {
      text += Common::Utf8ToString(Chars(at->content));
      continue;
    }
    ASSERT_EQ(child == nullptr ? ours.GetText() : child->GetTextBehind(), text);
    text.clear();
    child = child == nullptr ? ours.GetFirstChild() : child->GetNext();
    ASSERT_EQ(child == nullptr, at == nullptr);
    if (at == nullptr) return;
    ExpectSameTree(*child, *at);
  }
}

void ExpectSameTree(const std::string& packet) {
  const std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> theirs(
      xmlReadMemory(packet.data(), static_cast<int>(packet.size()), "packet.xml", nullptr,
                    XML_PARSE_NOCDATA | XML_PARSE_HUGE | XML_PARSE_NONET),
      &xmlFreeDoc);
  ASSERT_NE(theirs, nullptr) << packet;
  Core::buf_ifile<char> file(packet.data(), packet.size());
  Core::XmlDocument ours;
  unsigned int line;
  unsigned int column;
  ASSERT_TRUE(Core::ReadDocument(ours, file, line, column)) << packet;
  SCOPED_TRACE(packet.substr(0, 10000));
  ExpectSameTree(*ours.GetRoot(), *xmlDocGetRootElement(theirs.get()));
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

void WriteRandomElements(Serializer& to, std::mt19937& random, int depth) {
  for (std::size_t left = random() % 5; left != 0; --left) {
    MetaInfo meta(std::string(1 + random() % 20, static_cast<char>('a' + random() % 26)));
    if (random() % 3 == 0) meta.version = random();
    if (random() % 4 == 0) meta.traits = MakeTraits({{"Is", "StringValue", "A<B> & C"}});
    if (random() % 8 == 0) meta.common_traits = MakeTraits({{"x", "y", " "}, {"y", "x", "\xE9"}});
    switch (depth < 6 ? random() % 6 : 0) {
      case 0:
        to.Write(meta, MakeLegalText(random));
        break;
      case 1:
        to.Write(meta, std::vector<unsigned char>(random() % 100, 0xA5));
        break;
      case 2:
        to.Write(meta, static_cast<double>(random()) / 7);
        break;
      default:
        to.BeginElement(meta);
        if (random() % 4 == 0) to.Write(MetaInfo(), MakeLegalText(random));
        WriteRandomElements(to, random, depth + 1);
        to.EndElement(meta);
    }
  }
}

TEST(XMLPacket, AnotherLibraryReadsTheSameTree) {
  std::mt19937 random(4);
  for (int round = 0; round < 500; ++round) {
    ExpectSameTree(WritePacket([&](Serializer& to) { WriteRandomElements(to, random, 0); }));
  }
  // All characters that XML allows, in both forms.
  ExpectSameTree(WritePacket([](Serializer& to) {
    for (const Common::String& text :
         MakeTexts<Common::String>({u"x?y", u" ? ", u"x?\n"}, 9, 0xFFFD)) {
      const char16_t unit = text[1];
      if (unit < u' ' && unit != u'\t' && unit != u'\n' && unit != u'\r') continue;
      if ((unit & 0xF800) != 0xD800) to.Write(MetaInfo("v"), text);
    }
  }));
}

}  // namespace
}  // namespace Serialization
