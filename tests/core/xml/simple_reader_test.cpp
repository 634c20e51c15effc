#include "core/xml/simple_reader.h"

#include <gtest/gtest.h>

#include <string>

#include "core/file/memory_file.h"
#include "core/include/file/file_codes.h"
#include "tests/core/xml/tree_text.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/text.h"

namespace Core {
namespace {

using std::string_literals::operator""s;
using TestSupport::PieceFile;
using TestSupport::ReadResult;
using TestSupport::ReadXml;
using TestSupport::TreeWriter;

struct Case {
  std::string document;
  std::string expected;  // the tree, or where it was refused
};

// What a file gives at a time must not matter.
void Check(const Case& row) {
  for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{1} << 20}) {
    EXPECT_EQ(ReadXml(row.document, piece).ToString(), row.expected)
        << row.document << " in pieces of " << piece;
  }
}

TEST(XmlWhiteSpace, IsFolded) {
  const Case cases[] = {
      {"<a> x  y </a>", "<a>x&#32;y</a>"},
      {"<a>\n <b>\t</b>\r\n</a>", "<a><b></b></a>"},
      // between elements it is a blank, whatever it was
      {"<a><b/>\r\n\t<b/><c> </c> <c></c></a>", "<a><b></b>&#32;<b></b><c></c>&#32;<c></c></a>"},
      {"<a>x <!-- c --> y<!-- c -->z <?p?> </a>", "<a>x&#32;yz</a>"},
      // references and sections are no white space
      {"<a>&#32; &#32;x&#10;</a>", "<a>&#32;&#32;&#32;x&#10;</a>"},
      {"<a>x <![CDATA[y]]> z</a>", "<a>x&#32;y&#32;z</a>"},
      {"<a> <![CDATA[]]> x <![CDATA[]]> </a>", "<a>&#32;x&#32;</a>"},
      // around the root it is nothing
      {"\xEF\xBB\xBF \n<?xml version='1.0'?> <!-- c --> <!DOCTYPE a> <a/> <!-- c --> \n",
       "<a></a>"},
      {"<a xml:space='preserve'> </a>\n <!-- c --> \n", "<a xml:space=\"preserve\">&#32;</a>"},
      // in attributes
      {"<a b=\" x  y \"/>", "<a b=\"x&#32;y\"></a>"},
      {"<a b='\n\"\t&#32; ' c\n = \n\"'\"d=''/>", "<a b=\"&#34;&#32;&#32;\" c=\"'\" d=\"\"></a>"},
      {"<a xml:space='preserve' b='  x  ' ><c b=' y  z '/></a>",
       "<a xml:space=\"preserve\" b=\"x\"><c b=\"y&#32;z\"></c></a>"},
      {"<a B='>' b=']]>' _='1' :.-9='2'/>", "<a B=\">\" b=\"]]>\" _=\"1\" :.-9=\"2\"></a>"},
  };
  for (const Case& row : cases) Check(row);
}

TEST(XmlWhiteSpace, IsKeptInsideAPreservingElement) {
  const std::string attribute = " xml:space=\"preserve\"";
  const std::string open = "<p" + attribute + ">";
  const Case cases[] = {
      {"<r>" + open + "\r\n<b>\t<c/> </b></p></r>",
       "<r>" + open + "&#13;&#10;<b>&#9;<c></c>&#32;</b></p></r>"},
      {"<r>" + open + "</p><b>  x  y</b></r>", "<r>" + open + "</p><b>x&#32;y</b></r>"},
      // the run of white space right behind it still belongs to it, and nothing more
      {"<r>" + open + "</p>  <b/>  </r>", "<r>" + open + "</p>&#32;&#32;<b></b></r>"},
      {"<r><p" + attribute + "/> \n<b/></r>", "<r>" + open + "</p>&#32;&#10;<b></b></r>"},
      {"<r>" + open + "</p>  <!-- c -->  <b/></r>",
       "<r>" + open + "</p>&#32;&#32;&#32;<b></b></r>"},
      {"<r>" + open + "</p><!-- c -->  <b/></r>", "<r>" + open + "</p>&#32;&#32;<b></b></r>"},
      {"<r>" + open + "</p><![CDATA[ ]]>  y</r>", "<r>" + open + "</p>&#32;&#32;y</r>"},
      // what is inside of it can't end it
      {"<r>" + open + open + "</p>  <b xml:space='default'> </b></p></r>",
       "<r>" + open + open + "</p>&#32;&#32;<b xml:space=\"default\">&#32;</b></p></r>"},
      // other values and names don't count
      {"<r xml:space='Preserve' space='preserve'> x </r>",
       "<r xml:space=\"Preserve\" space=\"preserve\">x</r>"},
  };
  for (const Case& row : cases) Check(row);
}

TEST(XmlText, IsDecodedStrictly) {
  const Case cases[] = {
      {"<a>&amp;&lt;&gt;&apos;&quot;&#65;&#x4a;&#X4;</a>", "1:40"},
      {"<a>&amp;&lt;&gt;&apos;&quot;&#65;&#x4a;&#x004B;&#0000000000000076;</a>",
       "<a>&#38;&#60;>'&#34;AJKL</a>"},
      {"<a>&#0;&#xD83D;&#xFFFE;&#x10000;&#x10FFFF;</a>",
       "<a>&#0;&#55357;&#65534;&#55296;&#56320;&#56319;&#57343;</a>"},
      {"<a>&#x110000;</a>", "1:4"},
      {"<a>&#4294967361;</a>", "1:4"},
      {"<a>&#x100000041;</a>", "1:4"},
      {"<a>&#;</a>", "1:4"},
      {"<a>&#1a;</a>", "1:4"},
      {"<a>x y &nbsp;</a>", "1:8"},
      {"<a>\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD</a>",
       "<a>&#127;&#128;&#2047;&#2048;&#55295;&#57344;&#65533;</a>"},
      {"<a>\xF0\x90\x80\x80\xF4\x8F\xBF\xBF</a>", "<a>&#55296;&#56320;&#56319;&#57343;</a>"},
      {"<a b='\xC3\xA9'><![CDATA[\xC3\xA9]]></a>", "<a b=\"&#233;\">&#233;</a>"},
      // the first byte that isn't right
      {"<a>x\x80</a>", "1:5"},
      {"<a>\xC1\xBF</a>", "1:4"},
      {"<a>\xC3</a>", "1:5"},
      {"<a>\xE0\x9F\xBF</a>", "1:5"},
      {"<a>\xED\xA0\x80</a>", "1:5"},
      {"<a>\xEF\xBF\xBE</a>", "1:6"},
      {"<a>\xF0\x8F\xBF\xBF</a>", "1:5"},
      {"<a>\xF4\x90\x80\x80</a>", "1:5"},
      {"<a>\xF1\x80\x80", "1:7"},
      {"<a b='  \xFF'/>", "1:9"},
  };
  for (const Case& row : cases) Check(row);
}

TEST(XmlSections, HaveTheirOwnRules) {
  const Case cases[] = {
      {"<a><![CDATA[ <&>\t]] ]> ]]]></a>", "<a>&#32;&#60;&#38;>&#9;]]&#32;]>&#32;]</a>"},
      {"<a><![CDATA[1\r\n2\r3]]></a>", "<a>1&#10;23</a>"},
      {"<a><![CDATA[\x1F]]></a>", "1:13"},
      {"<a><![CDATA[x]]</a>", "1:20"},
      {"<a><![CDATA[ \xFF]]></a>", "1:14"},
      {"<a><!--></a>", "1:13"},
      {"<a><!--\x01--></a>", "1:8"},
      {"<a><!--\xFF--><?\xFF?></a>", "<a></a>"},
      {"<a><?\x02?></a>", "1:6"},
      {"<!DOCTYPE a PUBLIC '\xFF'><a/>", "<a></a>"},
      {"<!DOCTYPE a [<!ENTITY x 'y'>]><a/>", "1:13"},
      {"<!DOCTYPE><a/>", "1:1"},
      {"<a><![cdata[]]></a>", "1:4"},
  };
  for (const Case& row : cases) Check(row);
}

TEST(XmlDocuments, AreRefusedWhereTheyAreBad) {
  const Case cases[] = {
      {"", "1:1"},
      {" \n ", "2:2"},
      {"x<a/>", "1:1"},
      {"<a/>x y", "1:5"},
      {"<a/><!-- c --> <b/>", "1:16"},
      {"<a/> <![CDATA[]]>", "1:6"},
      {"<a/><![CDATA[]]>", "1:14"},
      {"<a/></a>", "1:5"},
      {"<a><b></a></b>", "1:7"},
      {"<a></a b='1'>", "1:8"},
      {"<a></ a>", "1:4"},
      {"<a>< b/></a>", "1:4"},
      {"<9/>", "1:1"},
      {"<a\xC3\xA9/>", "1:3"},
      {"<a/ >", "1:3"},
      {"<a b/>", "1:5"},
      {"<a b=c/>", "1:5"},
      {"<a ='c'/>", "1:4"},
      {"<a b='1' b='2'/>", "1:10"},
      {"<a b='<'/>", "1:7"},
      {"<a b='x\x01'/>", "1:8"},
      {"<a b=\"'/>", "1:10"},
      {"<a>", "1:4"},
      {"<a>\x0B</a>", "1:4"},
      {"<a>x \x1B</a>", "1:6"},
      {"<a/>\0"s, "1:5"},
      // places: a line feed begins a line, a tab goes to the next column of eight; a mark is none
      {"<a>\n\t1\t\t&x;</a>", "2:25"},
      {"<a>\r\n\n  <b c='\n'>\n  </c>", "5:3"},
      {"\xEF\xBB\xBF<a/>\xC3\xA9", "1:5"},
      {"\xEF\xBB\xBF<a>\xC3\xA9<</a>", "1:6"},
  };
  for (const Case& row : cases) Check(row);
}

TEST(XmlDocuments, AreReadFromWhereverTheFileStopsAtATime) {
  // All kinds of tokens at all places of a read, and of a block of 16 bytes.
  const std::string piece =
      "word two\twords <b c=' d  e '>&lt;&#x1F600;\xF0\x9F\x98\x80</b> <![CDATA[x]y\r\n]]><!-- - "
      "--><?p ?>\n<d xml:space='preserve'> 1  2 </d>  long-words-and-more and-blanks-between-them";
  const std::string tree =
      "word&#32;two&#32;words&#32;<b c=\"d&#32;e\">&#60;&#55357;&#56832;&#55357;&#56832;</b>&#32;"
      "x]y&#10;&#32;<d xml:space=\"preserve\">&#32;1&#32;&#32;2&#32;</d>&#32;&#32;"
      "long-words-and-more&#32;and-blanks-between-them";
  const std::string end = "<b d='1'\n d='2'/></a>";
  for (std::size_t filler = 0; filler < 64; ++filler) {
    const std::string head = std::string(filler, 'x') + "<b/>";
    const std::string document = "<a>" + head + piece + "</a>";
    const std::string expected = "<a>" + std::string(filler, 'x') + "<b></b>" + tree + "</a>";
    for (const std::size_t size : {document.size(), std::size_t{1}, std::size_t{7}}) {
      ASSERT_EQ(ReadXml(document, size).ToString(), expected) << filler << " by " << size;
      const std::string bad = "<a>" + head + piece + end;
      ASSERT_EQ(ReadXml(bad, size).ToString(), "4:2") << filler << " by " << size;
    }
  }
  // Across the reads that are asked for.
  for (std::size_t filler = 32768 - piece.size(); filler <= 32768; filler += 3) {
    const std::string document = "<a>" + std::string(filler, ' ') + piece + "</a>";
    ASSERT_EQ(ReadXml(document).ToString(), "<a>" + tree + "</a>") << filler;
  }
}

TEST(XmlDocuments, EndOfTheFileAndItsFailureMakeABadDocument) {
  const std::string document =
      "\xEF\xBB\xBF<a b='1 &lt;'>x <c/>\xC3\xA9<![CDATA[y]]> <!-- --><?p?></a>";
  for (std::size_t size = 0; size < document.size(); ++size) {
    EXPECT_FALSE(ReadXml(document.substr(0, size)).good) << size;
  }
  ASSERT_TRUE(ReadXml(document).good);
  // Whole, but for a file that fails where it ends, or that had failed before.
  PieceFile failing(document, 100, MakeFileError(kFileReadFailure, {}));
  EXPECT_FALSE(ReadXml(failing).good);
  buf_ifile<char> failed(document.data(), document.size());
  failed.SetError(MakeFileError(kFileReadFailure, {}));
  const ReadResult result = ReadXml(failed);
  EXPECT_FALSE(result.good);
  EXPECT_EQ(result.tree, ReadXml(document).tree);
  EXPECT_EQ(failed.GetError().GetCode(), 0x40001u);
  // What is passed over behind the root may lack its end.
  for (const char* const tail : {"<!-- x", "<?x", "<!DOCTYPE x"}) {
    EXPECT_TRUE(ReadXml(document + tail).good) << tail;
  }
  for (const char* const tail : {"<", "<!-"}) EXPECT_FALSE(ReadXml(document + tail).good) << tail;
}

TEST(XmlDocuments, TakeThePlaceOfTheFormerTree) {
  XmlDocument document;
  unsigned int line = 0;
  unsigned int column = 0;
  buf_ifile<char> good("<a>\n<b/></a>\n\t", 14);
  ASSERT_TRUE(ReadDocument(document, good, line, column));
  EXPECT_EQ(line, 3u);
  EXPECT_EQ(column, 9u);
  EXPECT_EQ(document.GetRoot()->GetFirstChild()->GetParent(), document.GetRoot());
  buf_ifile<char> empty("", 0);
  EXPECT_FALSE(ReadDocument(document, empty, line, column));
  EXPECT_EQ(document.GetRoot(), nullptr);
}

TEST(XmlTrees, FindAttributesByName) {
  XmlDocument document;
  unsigned int line = 0;
  unsigned int column = 0;
  std::string text = "<a";
  for (int i = 0; i < 1000; ++i) {
    const std::string number = std::to_string(i * 7919 % 1000);
    text.append(" n").append(number).append("='").append(number).append("'");
  }
  text.append("/>");
  buf_ifile<char> file(text.data(), text.size());
  ASSERT_TRUE(ReadDocument(document, file, line, column));
  for (int i = 0; i < 1000; ++i) {
    const XmlAttribute* const found =
        document.GetRoot()->FindAttribute(std::string("n").append(std::to_string(i)));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(TestSupport::Utf8(found->GetValue()), std::to_string(i));
  }
  for (const char* const name : {"n", "n1000", "z"}) {
    EXPECT_EQ(document.GetRoot()->FindAttribute(name), nullptr);
  }
}

TEST(XmlDepth, HasNoLimit) {
  constexpr int kDepth = 1'000'000;
  std::string text;
  for (int i = 0; i < kDepth; ++i) text += "<a>";
  {
    const ReadResult cut = ReadXml(text);
    EXPECT_FALSE(cut.good);
    EXPECT_EQ(cut.column, 3u * kDepth + 1);
  }
  for (int i = 0; i < kDepth; ++i) text += "</a>";
  EXPECT_TRUE(ReadXml(text).ToString() == text);
}

TEST(XmlSize, LongTextsAndTokensAreRead) {
  const std::string word(5'000'000, 'w');
  const std::string texts =
      "<a " + word.substr(0, 100'000) + "=\"" + word + "\">" + word + "<b></b>" + word;
  EXPECT_TRUE(ReadXml(texts + "</a>").ToString() == texts + "</a>");
  const std::string zeros(1'000'000, '0');
  EXPECT_EQ(ReadXml("<a><!--" + zeros + "-->&#" + zeros + "65;</a>").ToString(), "<a>A</a>");
  EXPECT_EQ(ReadXml("<a/>" + word).ToString(), "1:5");
}

TEST(XmlMemory, RunningOutLeavesNothingBehind) {
  for (const std::string& text : {"<a b='1' cc='2'>" + std::string(9000, 'x') + "<d>y</d> z</a>",
                                  "BXML\x02\x00\x01\x01"s + "a\x02\x01" + "b\x02" +
                                      "1\x00\xA0\x8D\x01"s + std::string(9040, 'x') + "\x00"s}) {
    TestSupport::FailEachAllocation(
        [&](const TestSupport::AllocationWatch& watch) {
          PieceFile file(text, 65536);
          XmlDocument document;
          unsigned int line = 0;
          unsigned int column = 0;
          bool good = false;
          try {
            good = ReadDocument(document, file, line, column);
          } catch (const std::bad_alloc&) {
          }
          EXPECT_NE(good, watch.HasFailed());
        },
        1);
  }
}

}  // namespace
}  // namespace Core
