#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/error.h"
#include "core/common/number_text.h"
#include "enterprise/serialize/element_scope.h"
#include "tests/enterprise/serialize/packet_support.h"
#include "tests/support/trace_recorder.h"

// Packets grow by realloc, and the list of open elements by operator new. The linker turns both to
// here.

namespace {

std::size_t most_memory = std::numeric_limits<std::size_t>::max();
bool has_no_objects_left = false;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" void* __real_realloc(void* block, std::size_t size);
extern "C" void* __wrap_realloc(void* block, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size) {
  return size <= most_memory ? __real_realloc(block, size) : nullptr;
}
extern "C" void* __real__Znwm(std::size_t size);
extern "C" void* __wrap__Znwm(std::size_t size);
void* __wrap__Znwm(std::size_t size) {
  return has_no_objects_left ? throw std::bad_alloc() : __real__Znwm(size);
}
extern "C" void* __real__Znam(std::size_t size);
extern "C" void* __wrap__Znam(std::size_t size);
void* __wrap__Znam(std::size_t size) {
  return has_no_objects_left ? throw std::bad_alloc() : __real__Znam(size);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace Serialization {
namespace {

using namespace Packets;
using namespace std::string_literals;
using namespace std::string_view_literals;

TEST(XMLPacketWriter, PacketHasTheseBytes) {
  const auto write = [](Serializer& to) {
    to.BeginElement(MetaInfo("request_ViewManager_CloseView"));
    to.Write(MetaInfo("viewID"), 7u);
    EXPECT_EQ(to.GetCurrentMetaInfo().name, "request_ViewManager_CloseView");
    to.EndElement(MetaInfo("request_ViewManager_CloseView"));
    EXPECT_EQ(to.GetCurrentMetaInfo().name, "");
  };
  const std::string expected =
      "\xEF\xBB\xBF<XML_SERIALIZER><request_ViewManager_CloseView><viewID>7</viewID>"
      "</request_ViewManager_CloseView></XML_SERIALIZER>";
  EXPECT_EQ(WritePacket(write), expected);

  const std::unique_ptr<Serializer> serializer = CreateXMLPacketSerializer(0);
  write(*serializer);
  std::vector<unsigned char> bytes{1, 2, 3};
  serializer->Finish(bytes);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), expected);
  // Nothing stays, and what is open gets no end tag.
  const TestSupport::TraceRecorder trace;
  serializer->BeginElement(MetaInfo("a"));
  {
    const ElementWriter outer(*serializer, MetaInfo("b"));
    serializer->Finish(bytes);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "<a><b></XML_SERIALIZER>");
    // Nobody knows of them any more.
    EXPECT_EQ(serializer->GetCurrentMetaInfo().name, "");
  }
  serializer->EndElement(MetaInfo("a"));
  EXPECT_EQ(trace.Assertions(),
            (std::vector<std::string>(2, "!\"XMLPacketSerializer: No open element.\"")));
  serializer->Finish(bytes);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "</XML_SERIALIZER>");
  EXPECT_EQ(serializer->GetInterface("PN13Serialization24ContainerAwareSerializerE"), nullptr);
}

TEST(XMLPacketWriter, ValuesHaveTheseTexts) {
  Common::Guid guid;
  ASSERT_TRUE(Common::GuidFromString(guid, "6b29fc40-CA47-1067-B31D-00DD010662DA"));
  const unsigned char block[] = {0, 0x10, 0x83, 0xFF};
  CountedBytes counted{boost::shared_array<unsigned char>(new unsigned char[3]{'a', 'b', 'c'}), 2};

  const std::pair<std::string, const char*> rows[] = {
      {WriteValue(true), "1"},
      {WriteValue(false), "0"},
      {WriteValue(std::numeric_limits<unsigned char>::max()), "255"},
      {WriteValue(std::numeric_limits<short>::min()), "-32768"},
      {WriteValue(std::numeric_limits<unsigned short>::max()), "65535"},
      {WriteValue(std::numeric_limits<int>::min()), "-2147483648"},
      {WriteValue(std::numeric_limits<unsigned int>::max()), "4294967295"},
      {WriteValue(std::numeric_limits<long long>::min()), "-9223372036854775808"},
      {WriteValue(std::numeric_limits<unsigned long long>::max()), "18446744073709551615"},
      {WriteValue(guid), "6B29FC40-CA47-1067-B31D-00DD010662DA"},
      {WriteValue(std::vector<unsigned char>()), ""},
      {WriteValue(std::vector<unsigned char>(block, block + 4)), "ABCD/w=="},
      {WriteValue(CountedBytes()), ""},
      {WriteValue(counted), "YWI="},
      // The byte form of success is its version alone.
      {WriteValue(Common::Error()), "AQ=="},
      {WriteValue(Common::Error(0x12, "x", Common::LineTag())),
       "ARIAAAAAAAAAAAAAAHgAJG1vZHVsZQBBb2JqcHJvYmVfbHhhNjRfNDMyNjcAAA=="},
  };
  for (const auto& [written, text] : rows) {
    EXPECT_EQ(written, std::string("<v>").append(text).append("</v>"));
  }

  // The format is one of printf.
  for (const double number : {0.0, -0.0, 0.1, 1.0 / 3, 1e15, 1e16, 1e22, 123456.789, 5e-324,
                              HUGE_VAL, -std::numeric_limits<double>::max(), std::nan("")}) {
    char text[64];
    std::snprintf(text, sizeof text, "<v>%.16g</v>", number);
    EXPECT_EQ(WriteValue(number), text);
  }
}

TEST(XMLPacketWriter, TextsGoInOneOfTwoForms) {
  const struct {
    Common::String text;
    std::string written;
  } wide[] = {
      {u"", ""},
      {u"a b", "a b"},
      {u" ", "&#32;"},
      {u" a ", "&#32;a&#32;"},
      {u"a  b", "a &#32;b"},
      {u"a   b", "a &#32; b"},
      {u"a    b", "a &#32; &#32;b"},
      {u"   ", "&#32; &#32;"},
      {u"a\tb", "a&#9;b"},
      {u"a \tb", "a &#9;b"},
      {u"a\t b", "a&#9; b"},
      {u"<&>\"'", "&lt;&amp;>\"'"},
      {u"]]>", "]]>"},
      {u"\x7F\x80", "\x7F\xC2\x80"},
      {u"a\nb", "<![CDATA[a\r\nb]]>"},
      {u"\n", "<![CDATA[\r\n]]>"},
      {u" \t\n <&\u20AC", "<![CDATA[ \t\r\n <&\xE2\x82\xAC]]>"},
      {u"\n]]x>]", "<![CDATA[\r\n]]x>]]]>"},
      {u"\n]]>", "&#10;]]>"},
      {u"]]]>\n", "]]]>&#10;"},
      {u"a\r\nb", "a&#13;&#10;b"},
      {u"\n\x1F", "&#10;&#31;"},
      {Common::String(u"\0a\n", 3), "&#0;a&#10;"},
      {u"\U0001F600", "\xF0\x9F\x98\x80"},
      {u"\U0001F600\n\U0010FFFF", "<![CDATA[\xF0\x9F\x98\x80\r\n\xF4\x8F\xBF\xBF]]>"},
      {{0xDC00}, "&#56320;"},
      {{0xD800}, "&#55296;"},
      {{0xD800, 0xD800, 0xDC00}, "&#55296;\xF0\x90\x80\x80"},
      {{0xDC00, u'\n'}, "&#56320;&#10;"},
      {{0xFFFD, 0xFFFE, 0xFFFF}, "\xEF\xBF\xBD&#65534;&#65535;"},
      {{u'\n', 0xFFFF}, "&#10;&#65535;"},
      {{u'\n', u'x', 0xD800}, "&#10;x&#55296;"},
  };
  for (const auto& row : wide) {
    EXPECT_EQ(WriteValue(row.text), "<v>" + row.written + "</v>");
  }
  const struct {
    std::string text;
    std::string written;
  } narrow[] = {
      {"\xE9", "\xC3\xA9"},
      {"\xE9\n\xFF", "<![CDATA[\xC3\xA9\r\n\xC3\xBF]]>"},
      {"\0 \xE2\x82\xAC"s, "&#0; \xC3\xA2\xC2\x82\xC2\xAC"},
      {"\n]]>\x80", "&#10;]]>\xC2\x80"},
  };
  for (const auto& row : narrow) {
    EXPECT_EQ(WriteValue(row.text), "<v>" + row.written + "</v>");
  }
}

// The same where blanks and escapes meet the blocks and pieces in which long texts are written.
TEST(XMLPacketWriter, LongTextsFollowTheSameRules) {
  const std::pair<const char*, const char*> middles[] = {
      {" ", " "},           {"  ", " &#32;"},     {"   ", " &#32; "},  {"<", "&lt;"},
      {"\xE9", "\xC3\xA9"}, {" \x7F ", " \x7F "}, {" \r ", " &#13; "},
  };
  for (const auto& [middle, written] : middles) {
    for (const std::size_t base : {1u, 500u, 1010u}) {
      for (std::size_t before = base; before < base + 40; ++before) {
        const std::string left(before, 'a');
        const std::string right(50 - (before - base), 'z');
        const std::string text = left + middle + right;
        const std::string expected = "<v>" + left + written + right + "</v>";
        ASSERT_EQ(WriteValue(text), expected);
        Common::String wide;
        for (const char c : text) wide += static_cast<unsigned char>(c);
        ASSERT_EQ(WriteValue(wide), expected);
        ASSERT_EQ(WriteValue(text + "\x01\n"), "<v>" + left + written + right + "&#1;&#10;</v>");
      }
    }
  }
}

// Where each unit takes the most room. A look at the rest of the text for each line feed, on which
// the form of the text depends, would take longer than tests may.
TEST(XMLPacketWriter, LongTextsMayBeAllEscapes) {
  const auto expect = [](const auto& text, const std::string& escape, const std::string& end = "") {
    std::string expected = "<v>";
    for (std::size_t i = end.empty() ? 0 : 1; i < text.size(); ++i) expected += escape;
    EXPECT_TRUE(WriteValue(text) == expected + end + "</v>");
  };
  expect(Common::String(600, char16_t{0xD800}), "&#55296;");
  expect(std::string(600, '\x01'), "&#1;");
  expect(std::string(2000000, '\n') + "\r", "&#10;", "&#13;");
}

// Room for its first block alone, which ends in the content, in an end tag or in that of the root.
TEST(XMLPacketWriter, PacketsWithoutRoomAreNotFinished) {
  enum Outcome { kGood, kNoContent, kNoEnd, kNoRootEnd, kOutcomes };
  unsigned int counts[kOutcomes] = {};
  for (std::size_t fill = 0; fill < 512; ++fill) {
    SCOPED_TRACE(fill);
    const TestSupport::TraceRecorder trace;
    most_memory = 512;
    const std::unique_ptr<Serializer> to = CreateXMLPacketSerializer(0);
    Outcome outcome = kGood;
    try {
      const ElementWriter outer(*to, MetaInfo("outer"));
      for (std::size_t i = 0; i < fill; ++i) to->Write(MetaInfo(), true);
      const ElementWriter inner(*to, MetaInfo("inner"));
      // As much as the start tag asks for at most, so that the ends find no room left of it.
      for (int i = 0; i < 50; ++i) to->Write(MetaInfo(), false);
    } catch (const std::bad_alloc&) {
      outcome = kNoContent;
    }
    if (outcome == kGood && !trace.Errors().empty()) outcome = kNoEnd;
    try {
      const CountedBytes packet = to->Finish();
      EXPECT_EQ(outcome, kGood);
      EXPECT_EQ(std::string(packet.data.get(), packet.data.get() + packet.size),
                std::string(kBegin) + "<outer>" + std::string(fill, '1') + "<inner>" +
                    std::string(50, '0') + "</inner></outer>" + std::string(kEnd));
    } catch (const std::bad_alloc&) {
      if (outcome == kGood) outcome = kNoRootEnd;
      // Also where there is room for the end.
      most_memory = std::numeric_limits<std::size_t>::max();
      EXPECT_THROW(to->Finish(), std::bad_alloc);
    }
    most_memory = std::numeric_limits<std::size_t>::max();
    EXPECT_EQ(trace.Assertions(), std::vector<std::string>());
    ++counts[outcome];
  }
  for (const unsigned int count : counts) EXPECT_NE(count, 0u);
}

TEST(XMLPacketWriter, ElementsWithoutRoomAreNotOpen) {
  MetaInfo skipped("c");
  skipped.category = 4;
  unsigned int failures = 0;
  for (unsigned int depth = 0; depth < 40; ++depth) {
    SCOPED_TRACE(depth);
    const std::unique_ptr<Serializer> to = CreateXMLPacketSerializer(3);
    for (unsigned int i = 0; i < depth; ++i) to->BeginElement(MetaInfo("a"));
    const MetaInfo last = depth % 2 == 0 ? skipped : MetaInfo("b");
    has_no_objects_left = true;
    try {
      to->BeginElement(last);
      has_no_objects_left = false;
      EXPECT_NO_THROW(to->Finish());
    } catch (const std::bad_alloc&) {
      has_no_objects_left = false;
      ++failures;
      EXPECT_EQ(to->GetCurrentMetaInfo().name, depth == 0 ? "" : "a");
      EXPECT_THROW(to->Finish(), std::bad_alloc);
    }
  }
  EXPECT_NE(failures, 0u);
  EXPECT_NE(failures, 40u);

  // The bytes of an error take room of their own; of another category, it isn't asked for them.
  const Common::Error error(7, Common::LineTag{});
  const std::unique_ptr<Serializer> to = CreateXMLPacketSerializer(3);
  has_no_objects_left = true;
  EXPECT_NO_THROW(to->Write(skipped, error));
  EXPECT_THROW(to->Write(MetaInfo("e"), error), std::bad_alloc);
  has_no_objects_left = false;
  EXPECT_THROW(to->Finish(), std::bad_alloc);
}

TEST(XMLPacketWriter, ElementsTellVersionAndTraits) {
  MetaInfo meta("a");
  meta.version = 18446744073709551615u;
  meta.traits = MakeTraits({{"Is", "StringValue", "Dml::ViewSpec"}});
  EXPECT_EQ(WriteElements([&](Serializer& to) {
              to.BeginElement(meta);
              to.Write(MetaInfo("b"), 1);
              to.EndElement(meta);
            }),
            "<a version=\"18446744073709551615\"><b>1</b><traits>"
            "<trait  name=\"Is\" type=\"StringValue\">Dml::ViewSpec</trait></traits></a>");

  meta.version = 0;
  meta.common_traits = MakeTraits({{"&", "<", "<\n> "}, {"x", "y", ""}});
  EXPECT_EQ(WriteElements([&](Serializer& to) { to.Write(meta, u""s); }),
            "<a><traits><trait  name=\"Is\" type=\"StringValue\">Dml::ViewSpec</trait>"
            "<trait  name=\"&\" type=\"<\"><![CDATA[<\r\n> ]]></trait>"
            "<trait  name=\"x\" type=\"y\"></trait></traits></a>");

  // A list without traits is a list.
  meta.traits = nullptr;
  meta.common_traits = MakeTraits({});
  EXPECT_EQ(WriteElements([&](Serializer& to) { to.Write(meta, 5); }), "<a>5<traits></traits></a>");
}

TEST(XMLPacketWriter, CategoriesLeaveElementsOut) {
  MetaInfo of3("three");
  of3.category = 3;
  of3.version = 2;
  of3.category_version = 9;
  MetaInfo of4("four");
  of4.category = 4;
  of4.traits = MakeTraits({{"Is", "StringValue", "x"}});
  std::string names;
  const auto write = [&](Serializer& to) {
    to.Write(of3, 1);
    to.Write(of4, 2);
    to.BeginElement(of4);
    to.BeginElement(of3);
    const std::string outer = to.GetCurrentMetaInfo().name;
    to.BeginElement(of4);
    names += outer + "," + to.GetCurrentMetaInfo().name + ";";
    to.Write(MetaInfo("x"), 3);
    to.EndElement(of4);
    to.EndElement(of3);
    to.EndElement(of4);
  };
  const std::string traits = "<traits><trait  name=\"Is\" type=\"StringValue\">x</trait></traits>";
  EXPECT_EQ(WriteElements(write, 3),
            "<three version=\"9\">1</three><three version=\"9\"><x>3</x></three>");
  EXPECT_EQ(WriteElements(write, 4), "<four>2" + traits + "</four><four><four><x>3</x>" + traits +
                                         "</four>" + traits + "</four>");
  EXPECT_EQ(WriteElements(write, 0), "<three version=\"2\">1</three><four>2" + traits +
                                         "</four><four><three version=\"2\"><four><x>3</x>" +
                                         traits + "</four></three>" + traits + "</four>");
  EXPECT_EQ(WriteElements(write, 5), "<x>3</x>");
  EXPECT_EQ(names, "three,three;four,four;three,four;,;");
}

TEST(XMLPacketWriter, NoNameIsNoElement) {
  MetaInfo nameless;
  nameless.version = 3;
  nameless.traits = MakeTraits({{"Is", "StringValue", "x"}});
  EXPECT_EQ(WriteElements([&](Serializer& to) {
              to.BeginElement(nameless);
              to.Write(nameless, 1);
              to.Write(nameless, u" b"s);
              to.EndElement(nameless);
            }),
            "1&#32;b");
}

}  // namespace
}  // namespace Serialization
