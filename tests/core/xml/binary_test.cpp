#include "core/xml/binary.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/core/xml/tree_text.h"
#include "tests/support/trace_recorder.h"

namespace Core {
namespace {

using std::string_literals::operator""s;
using TestSupport::PieceFile;
using TestSupport::ReadXml;
using TestSupport::TraceRecorder;
using Texts = std::vector<std::string>;

const std::string kOld = "BXML\x01\xFF"s;
const std::string kNew = "BXML\x02\x00"s;

struct Case {
  std::string bytes;
  std::string expected;
};

// <a k="vw">x<a/>é</a>
const Case kOldDocument{kOld +
                            "\x01\x01"  // id 1 is new, 1 byte
                            "a"
                            "\x01"  // one attribute
                            "\x02\x01"
                            "k"
                            "\x02"
                            "vw"
                            "\x02"  // two texts
                            "\x01"
                            "x"
                            "\x01"       // id 1
                            "\x00"s      // no attributes
                            "\x01\x00"s  // one text, empty
                            "\x02\xC3\xA9"s,
                        "<a k=\"vw\">x<a></a>&#233;</a>"};
const Case kNewDocument{kNew +
                            "\x01\x01"
                            "a"
                            "\x02\x01"
                            "k"
                            "\x04"  // twice 2 bytes
                            "vw"
                            "\x00"s  // no more attributes
                            "\x02"
                            "x"
                            "\x01"   // a child
                            "\x00"s  // no attributes
                            "\x00"s  // an empty piece
                            "\x00"s  // no child
                            "\x04\xC3\xA9"
                            "\x00"s,
                        "<a k=\"vw\">x<a></a>&#233;</a>"};

TEST(BinaryXml, IsReadInBothForms) {
  const Case cases[] = {
      kOldDocument,
      kNewDocument,
      // the first value of a name stays, also when the name has two ids
      {kOld + "\x00\x01"s + "a\x03\x01\x01k\x01" + "1\x02\x01k\x01" + "2\x01\x01" + "3\x01\x00"s,
       "<a k=\"1\"></a>"},
      {kNew + "\x01\x01" + "a\x02\x01k\x02" + "1\x02\x02" + "2\x00\x00\x00"s, "<a k=\"1\"></a>"},
      // in the order of the document
      {kNew + "\x01\x01" + "a\x02\x01z\x00\x03\x01"s + "b\x00\x00\x00\x00"s,
       "<a z=\"\" b=\"\"></a>"},
      // text isn't decoded strictly and ends at a zero
      {kNew + "\x01\x01" + "a\x00\x0A\xFF\xEF\xBF\xBE\x01\x00"s, "<a>&#65533;&#65534;&#1;</a>"},
      {kNew + "\x01\x01" + "a\x00\x06x\x00y\x00"s, "<a>x</a>"},
      // 8-bit text is dropped
      {kNew + "\x01\x01" + "a\x00\x05xy\x01\x00\x00\x00\x02z\x00"s, "<a><a></a>z</a>"},
      // no element
      {kNew + "\x00"s, ""},
      // what follows isn't looked at
      {kNewDocument.bytes + "rest", kNewDocument.expected},
      // the sixth byte of a number begins at bit 3 again: 8 bytes of text
      {kOld + "\x01\x01" + "a\x00\x01\x80\x80\x80\x80\x80\x01"s + "12345678"s, "<a>12345678</a>"},
      {kOld + "\x01\x01" + "a\x00\x01"s + std::string(1'000'001, '\x80') + "\x00"s, "<a></a>"},
  };
  for (const Case& row : cases) {
    EXPECT_EQ(ReadXml(row.bytes).ToString(), row.expected) << &row - cases;
    PieceFile file(row.bytes, std::string::npos);
    EXPECT_TRUE(ReadXml(file).good);
    EXPECT_FALSE(file.HasFailed());
  }
}

TEST(BinaryXml, AnEarlyEndIsToldByTheFile) {
  for (const Case& row : {kOldDocument, kNewDocument}) {
    for (std::size_t size = 4; size < row.bytes.size(); ++size) {
      PieceFile file(std::string_view(row.bytes).substr(0, size), std::string::npos);
      const auto result = ReadXml(file);
      EXPECT_EQ(result.ToString(), "1:1") << size;
      EXPECT_EQ(file.GetError().GetCode(), 0x40002u) << size;
    }
  }
  for (const char form : {'\0', '\3', '2'}) {
    EXPECT_EQ(ReadXml("BXML"s + form + kOldDocument.bytes.substr(5)).ToString(), "1:1");
  }
}

// Nothing is opened any more where the file has ended: in a first text, and behind a child.
TEST(BinaryXml, NoElementIsOpenedBehindAnEarlyEnd) {
  const std::string root = kOld + "\x01\x01" + "a\x00\x03"s;
  EXPECT_EQ(ReadXml(root + "\x07xy").tree, "<a>xy</a>");
  EXPECT_EQ(ReadXml(root + "\x01x\x02\x01" + "b\x00\x01\x00\x07xy"s).tree, "<a>x<b></b>xy</a>");
}

TEST(BinaryXml, LengthsAreNotBelieved) {
  const std::string most = "\xFF\xFF\xFF\xFF\x0F";
  TraceRecorder traces;
  for (const std::string& bytes : {
           kOld + "\x01" + most + "a",                        // name
           kOld + "\x01\x01" + "a\x01\x01" + most + "v",      // value
           kOld + "\x01\x01" + "a\x00"s + most + "\x01x",     // texts
           kOld + "\x01\x01" + "a\x00\x01"s + most + "x",     // text
           kNew + "\x01\x01" + "a\x02\x01k" + most + "v",     // value, odd
           kNew + "\x01\x01" + "a\x00"s + most + "x",         // piece, odd
           kNew + "\x01\x01" + "a\x00\xFE\xFF\xFF\xFF\x0Fx"s  // piece
       }) {
    PieceFile file(bytes, std::string::npos);
    EXPECT_FALSE(ReadXml(file).good);
    EXPECT_EQ(file.GetError().GetCode(), 0x40002u);
    EXPECT_LE(file.GetLargest(), 65536u);
  }
  EXPECT_EQ(traces.Assertions(), Texts{"(textLength & 1) == 0"});
}

TEST(BinaryXml, BrokenRulesAreAsserted) {
  TraceRecorder traces;
  // No texts: nothing sound can follow. The file has not failed.
  const std::string no_texts = kOld + "\x01\x01" + "a\x00\x00\x01x"s;
  PieceFile file(no_texts, std::string::npos);
  EXPECT_FALSE(ReadXml(file).good);
  EXPECT_FALSE(file.HasFailed());
  // Odd lengths of values: rounded down, and the first one asserted.
  EXPECT_EQ(ReadXml(kNew + "\x01\x01" + "a\x02\x01k\x03v\x03\x01l\x03w\x00\x00\x00"s).ToString(),
            "<a k=\"v\" l=\"w\"></a>");
  const std::string place = ", file core/xml/binary, line ";
  const Texts texts = traces.AssertionTexts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_TRUE(texts[0].starts_with("Assertion failed: textCount" + place + "135"));
  EXPECT_TRUE(texts[1].starts_with("Assertion failed: (textLength & 1) == 0" + place + "194"));
}

TEST(BinaryXml, AFurtherRootTakesThePlaceOfTheFormerAndCallsOutOfPlaceAreAsserted) {
  const TraceRecorder traces;
  XmlDocument document;
  XmlDetail::TreeBuilder builder(document);
  binary_reader reader(builder);
  reader.Begin();
  reader.Attribute("k", u"v");
  reader.Text(u"x");
  reader.CloseTag();
  const std::string name = "a";
  for (const Common::String text : {u"1", u"2"}) {
    reader.OpenTag(name);
    reader.Text(u"replaced");
    reader.Text(text);
    reader.CloseTag();
  }
  EXPECT_EQ(TestSupport::TreeWriter::Write(document.GetRoot()), "<a>2</a>");
  reader.OpenTag(name);
  reader.End();
  const std::string no_tag = "tagStack.size()";
  EXPECT_EQ(traces.Assertions(), (Texts{no_tag, no_tag, no_tag, "!tagStack.size()"}));
}

TEST(BinaryXml, DepthHasNoLimit) {
  constexpr int kDepth = 300'000;
  std::string old_form = kOld + "\x01\x01" + "a\x00\x02\x00"s;
  std::string new_form = kNew + "\x01\x01" + "a\x00\x00"s;
  std::string expected = "<a>";
  for (int i = 1; i < kDepth; ++i) {
    old_form += "\x01\x00\x02\x00"s;
    new_form += "\x01\x00\x00"s;
    expected += "<a>";
  }
  // Cut off in the deepest element.
  EXPECT_FALSE(ReadXml(old_form).good);
  EXPECT_FALSE(ReadXml(new_form).good);
  old_form += "\x01\x00\x01\x00"s;
  new_form += "\x01\x00\x00\x00"s;
  expected += "<a></a>";
  for (int i = 0; i < kDepth; ++i) {
    old_form += "\x00"s;
    new_form += "\x00\x00"s;
    expected += "</a>";
  }
  EXPECT_TRUE(ReadXml(old_form).ToString() == expected);
  EXPECT_TRUE(ReadXml(new_form).ToString() == expected);
}

// Copied or compared in each of the elements, the names would be hours.
TEST(BinaryXml, ALongNameIsStoredAndComparedOnce) {
  constexpr std::size_t kSize = 8'000'000, kElements = 500'000;
  const std::string long_name(kSize - 1, 'n');
  const std::string size = "\x80\xA4\xE8\x03";  // 8,000,000
  std::string bytes = kNew + "\x01" + size + long_name + "a\x02" + size + long_name + "b\x00\x03"s +
                      size + long_name + "c\x00\x00\x00"s;
  for (std::size_t i = 0; i < kElements; ++i) bytes += "\x01\x02\x00\x03\x00\x00\x00\x00\x00"s;
  bytes += '\0';
  XmlDocument document;
  unsigned int line = 0;
  unsigned int column = 0;
  PieceFile file(bytes, std::string::npos);
  ASSERT_TRUE(ReadDocument(document, file, line, column));
  const XmlTag& root = *document.GetRoot();
  ASSERT_EQ(root.GetAttributes().count, 2u);
  std::size_t count = 0;
  for (const XmlTag& child : root.GetChildren()) {
    ++count;
    ASSERT_EQ(child.GetName().data(), root.GetName().data());
    ASSERT_EQ(child.GetAttributes().count, 2u);
    for (std::size_t i = 0; i < 2; ++i) {
      ASSERT_EQ(child.GetAttributes().first[i].GetName().data(),
                root.GetAttributes().first[i].GetName().data());
    }
  }
  EXPECT_EQ(count, kElements);
}

TEST(BinaryXml, FlippedBytesDoNoHarm) {
  for (const Case& row : {kOldDocument, kNewDocument}) {
    for (std::size_t at = 0; at < row.bytes.size(); ++at) {
      for (int bit = 0; bit < 8; ++bit) {
        std::string bytes = row.bytes;
        bytes[at] = static_cast<char>(bytes[at] ^ 1 << bit);
        PieceFile file(bytes, std::string::npos);
        const auto result = ReadXml(file);
        EXPECT_FALSE(result.good && file.HasFailed());
      }
    }
  }
}

}  // namespace
}  // namespace Core
