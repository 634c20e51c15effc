#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/number_text.h"
#include "tests/enterprise/serialize/packet_support.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

namespace Serialization {
namespace {

using namespace Packets;
using namespace std::string_literals;

// Runs a script on the elements of a packet and tells, call by call, how it went. Calls:
//   NAME, !NAME        reads an int, strictly if marked: the int, or the code of the error;
//                      the name may be none
//   (NAME, !(NAME, )NAME   begins and ends an element: "ok" or the code
//   ?                  'the name of the next child', or 'end
//   @                  the subject version
std::string RunScript(Deserializer& from, std::string_view script) {
  std::string result;
  for (std::size_t at = 0; at <= script.size();) {
    const std::size_t end = std::min(script.find(' ', at), script.size());
    std::string_view call = script.substr(at, end - at);
    at = end + 1;
    MetaInfo meta;
    meta.strict = call.starts_with('!');
    if (meta.strict) call.remove_prefix(1);
    const char kind = call.empty() ? 'r' : call[0];
    const bool is_read = kind != '(' && kind != ')' && kind != '?' && kind != '@';
    meta.name = call.substr(is_read ? 0 : 1);
    int number = 0;
    std::string text = "ok";
    const std::uint32_t code = CodeOf([&] {
      if (kind == '(') from.BeginElement(meta);
      if (kind == ')') from.EndElement(meta);
      if (kind == '?') text = "'" + from.PeekMetaInfo().name + (from.IsAtEnd() ? "end" : "'");
      if (kind == '@') text = std::to_string(from.GetSubjectVersion());
      if (is_read) {
        from.Read(meta, number);
        text = std::to_string(number);
      }
    });
    char failure[16];
    std::snprintf(failure, sizeof failure, "%x", code);
    result += (result.empty() ? "" : " ") + (code != 0 ? failure : text);
  }
  return result;
}

TEST(XMLPacketReader, FindsChildren) {
  const struct {
    const char* elements;
    const char* script;
    const char* expected;
  } rows[] = {
      {"<a>1</a><b>2</b>", "? a ? b ?", "'a' 1 'b' 2 'end"},
      // A search: the child that stood there is passed, the found one isn't taken out.
      {"<a>1</a><b>2</b><c>3</c>", "b ? a ? b", "2 'b' 1 'c' 2"},
      // The search begins at the first child, the look at the next one doesn't.
      {"<a>1</a><b>2</b><a>3</a>", "b a a", "2 1 3"},
      {"<a>1</a><b>2</b><a>3</a><b>4</b>", "a b b b", "1 2 2 4"},
      {"<a>1</a>", "x a", "9c0002 9c0002"},
      // A strict miss passes the child, too.
      {"<a>1</a><b>2</b><c>3</c>", "!b ? !b !c", "9c0002 'b' 2 3"},
      {"<a>1</a>", "a a !a", "1 9c0002 9c0002"},
      // The end comes before the search: a missing field takes the last one with it, unless
      // something that nobody asks for stands behind.
      {"<Key>1</Key><Packed>3</Packed>", "Key Type Packed", "1 9c0002 9c0002"},
      {"<Key>1</Key><Packed>3</Packed><traits></traits>", "Key Type Packed", "1 9c0002 3"},
      {"<a>1<traits><trait  name=\"Is\" type=\"t\">v</trait></traits></a><b>2</b>", "a b", "1 2"},
      {"<a><b>1</b><c><b>2</b></c></a><d>4</d>", "(a (c b )c b )a d", "ok ok 2 ok 1 ok 4"},
      {"<a><b>1</b></a>", "!(x !(a", "9c0002 9c0002"},
      // Without a name: no element. The enclosing one has no number before its first child.
      {"7<a>8<b>1</b></a>", " ( ) (a  b )a", "7 ok ok ok 8 1 ok"},
      {"", "? a (a", "'end 9c0002 9c0002"},
  };
  for (const auto& row : rows) {
    const std::unique_ptr<Deserializer> from = OpenElements(row.elements);
    EXPECT_EQ(RunScript(*from, row.script), row.expected) << row.elements << "  " << row.script;
  }
}

TEST(XMLPacketReader, VersionsHoldForDescendants) {
  const std::unique_ptr<Deserializer> from = OpenElements(
      "<a><b version=\"5\"><c version=\"0\"/><d version=\"x\"/><e version=\" 7 \"/>"
      "<f version=\"99999999999999999999\"/><g version=\"18446744073709551615\"/></b></a>",
      3);
  EXPECT_EQ(RunScript(*from, "@ (a @ (b @ (c @ )c (d @ )d (e @ )e (f @ )f (g @ )g @ )b @ )a @"),
            "3 ok 3 ok 5 ok 5 ok ok 5 ok ok 7 ok ok 5 ok ok 18446744073709551615 ok 5 ok 3 ok 3");
}

TEST(XMLPacketReader, ReportsElementsThatDoNotFit) {
  const TestSupport::TraceRecorder trace;
  const std::unique_ptr<Deserializer> from = OpenElements("<a><b>1</b></a><c>2</c>", 3);
  EXPECT_EQ(RunScript(*from, "(a )b"), "ok 9c0002");
  MetaInfo with_traits("a");
  with_traits.traits = MakeTraits({});
  EXPECT_EQ(CodeOf([&] { from->EndElement(with_traits); }), kInconsistentCode);
  std::swap(with_traits.traits, with_traits.common_traits);
  EXPECT_EQ(CodeOf([&] { from->EndElement(with_traits); }), kInconsistentCode);
  // It is still open.
  EXPECT_EQ(RunScript(*from, "b )a c )XML_SERIALIZER"), "1 ok 2 9c0002");
  // The root was left for good.
  EXPECT_EQ(RunScript(*from, "? @ a (a )XML_SERIALIZER "), "'' 3 9c0004 9c0003 9c0003 9c0004");
  EXPECT_EQ(trace.Assertions(),
            (std::vector<std::string>{"!\"XMLPacketDeserializer: Inconsistent meta.\"",
                                      "!\"XMLPacketDeserializer: Inconsistent meta.\"",
                                      "!\"XMLPacketDeserializer: Inconsistent meta.\"",
                                      "CurrentTag", "!\"XMLPacketDeserializer: No meta.\"",
                                      "!\"XMLPacketDeserializer: No tags.\""}));
}

TEST(XMLPacketReader, FailuresHaveTheseTexts) {
  const TestSupport::TraceRecorder trace;
  const auto read = [](const char* elements, bool leaves_root) {
    const std::unique_ptr<Deserializer> from = OpenElements(elements);
    if (leaves_root) CodeOf([&] { from->EndElement(MetaInfo("XML_SERIALIZER")); });
    std::vector<unsigned char> bytes;
    try {
      leaves_root ? from->EndElement(MetaInfo("a")) : from->Read(MetaInfo("a"), bytes);
    } catch (const Common::Error& error) {
      return TestSupport::Utf8(error.GetMessage());
    }
    return "none"s;
  };
  EXPECT_EQ(read("<b></b>", false),
            "Cannot deserialize the object. The object's metadata is inconsistent. Either the "
            "versions of the product's components are incompatible with each other or the object "
            "was created by an incompatible product version.");
  EXPECT_EQ(read("", true), "Cannot find the object's meta info.");
  EXPECT_EQ(read("<a>*</a>", false), "SERIALIZER_ERROR_NO_DATA");
}

TEST(XMLPacketReader, RefusesBadPackets) {
  constexpr char kUnreadable[] = "result && \"Cannot read xml document from string.\"";
  std::string deep_tags;
  for (int i = 0; i < 200000; ++i) deep_tags += "<a>";
  const std::pair<std::string, const char*> rows[] = {
      {"", kUnreadable},
      {"no xml", kUnreadable},
      {"<a>", kUnreadable},
      {deep_tags, kUnreadable},
      {"<a>\xFF</a>", kUnreadable},
      {"BXML\3\0"s, kUnreadable},
      {"BXML\2\0\1\xFF\xFF\xFF\xFF\x0F"s, kUnreadable},
      // A binary document without an element is one.
      {"BXML\2\0\0"s, "RootTag"},
  };
  for (const auto& [packet, assertion] : rows) {
    SCOPED_TRACE(packet.substr(0, 20));
    const TestSupport::TraceRecorder trace;
    const std::unique_ptr<Deserializer> from = OpenPacket(packet, 3);
    EXPECT_EQ(trace.Assertions(), std::vector<std::string>{assertion});
    EXPECT_EQ(RunScript(*from, "? @ a (a )a  ( )"), "'' 9c0002 9c0003 9c0003 9c0003 9c0004 ok ok");
    EXPECT_EQ(trace.Assertions(),
              (std::vector<std::string>{assertion, "!\"XMLPacketDeserializer: No meta.\"",
                                        "!\"XMLPacketDeserializer: No meta.\"",
                                        "!\"XMLPacketDeserializer: No tags.\""}));
  }
}

TEST(XMLPacketReader, ReadsBinaryDocuments) {
  // <r><a version="9">7</a></r> in the newer of both forms, and behind the a a child without name.
  const std::unique_ptr<Deserializer> from = OpenPacket(
      "BXML\2\0"
      "\1\1r\0\0"
      "\2\1a\3\7version\2"
      "9\0\2"
      "7\0"
      "\0\4\0\0\0\0"
      "\0\0"s);
  EXPECT_EQ(RunScript(*from, "? (a @  )a ? a ?"), "'a' ok 9 7 ok '' 7 'end");
}

// The value that a text reads as, over one that stood there; none: the code of the failure fits
// and what stood there still stands.
template <class T>
std::optional<T> ReadText(const std::string& text, T value) {
  const T before = value;
  const std::unique_ptr<Deserializer> from = OpenElements("<v>" + text + "</v><next>1</next>");
  const std::uint32_t code = CodeOf([&] { from->Read(MetaInfo("v"), value); });
  // Also a value that failed is behind the reader.
  EXPECT_EQ(RunScript(*from, "? !next"), "'next' 1") << text;
  if (code == 0) return value;
  EXPECT_EQ(code, kNoDataCode) << text;
  if constexpr (requires { value == before; }) {
    EXPECT_EQ(value, before) << text;
  }
  return std::nullopt;
}

TEST(XMLPacketReader, ConvertsTexts) {
  // strtoull and strtoll decide, then the width of the type.
  const struct {
    const char* text;
    unsigned long long as_unsigned;
    long long as_signed;
  } numbers[] = {
      {"", 0, 0},
      {"x1", 0, 0},
      {"42", 42, 42},
      {"&#32;&#9;+42x", 42, 42},
      {"1 2", 1, 1},
      {"0x10", 0, 0},
      {"-1", 18446744073709551615u, -1},
      {"4294967298", 4294967298u, 4294967298},
      {"-9223372036854775809", 9223372036854775807u, std::numeric_limits<long long>::min()},
      {"18446744073709551616", 18446744073709551615u, std::numeric_limits<long long>::max()},
      // Narrowed: U+0134 is the digit 4.
      {"&#308;2", 42, 42},
      {"4&#0;2", 4, 4},
  };
  for (const auto& row : numbers) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(ReadText(row.text, 9ull), row.as_unsigned);
    EXPECT_EQ(ReadText(row.text, 9u), static_cast<unsigned int>(row.as_unsigned));
    EXPECT_EQ(ReadText<unsigned short>(row.text, 9), static_cast<unsigned short>(row.as_unsigned));
    EXPECT_EQ(ReadText<unsigned char>(row.text, 9), static_cast<unsigned char>(row.as_unsigned));
    EXPECT_EQ(ReadText(row.text, row.as_unsigned == 0), row.as_unsigned != 0);
    EXPECT_EQ(ReadText(row.text, 9ll), row.as_signed);
    EXPECT_EQ(ReadText(row.text, 9), static_cast<int>(row.as_signed));
    EXPECT_EQ(ReadText<short>(row.text, 9), static_cast<short>(row.as_signed));
  }

  const std::pair<const char*, double> doubles[] = {
      {"", 0},     {"abc", 0},      {"1.5", 1.5},      {"&#32;-1e3x", -1000}, {"1,5", 1},
      {".5", 0.5}, {"0x1p-1", 0.5}, {"inf", HUGE_VAL}, {"1e999", HUGE_VAL},   {"-", 0},
  };
  for (const auto& [text, number] : doubles) EXPECT_EQ(ReadText(text, 7.0), number) << text;
  EXPECT_TRUE(std::isnan(ReadText("nan", 7.0).value()));

  Common::Guid old;
  old.bytes.fill(7);
  Common::Guid guid;
  ASSERT_TRUE(Common::GuidFromString(guid, "01234567-89AB-CDEF-0123-456789ABCDEF"));
  EXPECT_EQ(ReadText("01234567-89ab-cdef-0123-456789abcdef rest", old), guid);
  EXPECT_EQ(ReadText("{01234567-89ab-cdef-0123-456789abcdef}", old), old);

  // Of content in pieces only the text before the first child counts.
  EXPECT_EQ(ReadText(" a  <b>c</b>d", Common::String(u"old")), u"a ");
  EXPECT_EQ(ReadText("&#0;\xC3\xA9", Common::String()), Common::String(u"\0\u00E9", 2));
  EXPECT_EQ(ReadText("&#321;&#233;&#0;b", "old"s), "A\xE9");
}

TEST(XMLPacketReader, ReadsBase64) {
  const std::vector<unsigned char> old{7};
  EXPECT_EQ(ReadText("", old), std::vector<unsigned char>());
  EXPECT_EQ(ReadText(" Zm9v&#10;", old), (std::vector<unsigned char>{'f', 'o', 'o'}));
  EXPECT_EQ(ReadText("Zg=", old), std::nullopt);
  const CountedBytes counted = ReadText("Zm8=", CountedBytes()).value();
  EXPECT_EQ(std::string(counted.data.get(), counted.data.get() + counted.size), "fo");
  EXPECT_FALSE(ReadText("Zm8", CountedBytes()).has_value());

  const Common::Error failure(5, Common::LineTag());
  for (const char* const success : {"", "AQ=="}) {
    EXPECT_EQ(ReadText(success, failure).value().GetRecord(), nullptr);
  }
  EXPECT_FALSE(ReadText("AQ=", failure).has_value());
  const Common::Error error =
      ReadText("ARIAAAAAAAAAAAAAAHgAJG1vZHVsZQBBb2JqcHJvYmVfbHhhNjRfNDMyNjcAAA==", failure).value();
  EXPECT_EQ(error.GetCode(), 0x12u);
  EXPECT_EQ(error.GetMessage(), u"x");
}

}  // namespace
}  // namespace Serialization
