#include "enterprise/common/dml/tools/objprobe/unit_printer.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <utility>

#include "enterprise/common/por/unit_helpers.h"
#include "tests/enterprise/common/dml/tools/objprobe/captured_output.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/support/allocation_watch.h"

namespace Por::Util {
namespace {

using namespace Por::Test;  // NOLINT: the vocabulary of these tests

std::string Print(const View::Unit& unit, std::size_t indent = 0) {
  ObjProbe::CapturedOutput captured;
  PrintUnit(unit, indent, captured.output);
  return captured.Take();
}

TEST(UnitPrinter, EachKindHasItsTypeColumn) {
  const struct {
    OwnedUnit unit;
    std::string text;
  } cases[] = {
      {Nil(), "Root (NIL)\n"},
      {Boolean(true), "Root (b) = 1\n"},
      {Boolean(false), "Root (b) = 0\n"},
      {Byte(65), "Root (h) = 65\n"},
      {SByte(-128), "Root (a) = -128\n"},
      {Word(65535), "Root (t) = 65535\n"},
      {SWord(-32768), "Root (s) = -32768\n"},
      {DWord(4294967295u), "Root (j) = 4294967295\n"},
      {SDWord(-2147483647 - 1), "Root (i) = -2147483648\n"},
      {QWord(18446744073709551615u), "Root (y) = 18446744073709551615\n"},
      {SQWord(-9223372036854775807 - 1), "Root (x) = -9223372036854775808\n"},
      {Double(0.1), "Root (d) = 0.1\n"},
      {Double(1e300), "Root (d) = 1e+300\n"},
      {Blob({}), "Root (Blob) Size = 0\n"},
      {Blob(std::vector<unsigned char>(300)), "Root (Blob) Size = 300\n"},
      {Guid({0xE0, 0x04, 0x25, 0x3F, 0x89, 0x4F, 0xD3, 0x11, 0x9A, 0x0C, 0x03, 0x05, 0xE8, 0x2C,
             0x33, 0x01}),
       "Root (Common::Guid) = 3F2504E0-4F89-11D3-9A0C-0305E82C3301\n"},
      {Text(u""), "Root (Common::String) = \n"},
      {Text(Common::String(u"a\0\u20AC\n", 4)),
       std::string("Root (Common::String) = a\0\xE2\x82\xAC\n\n", 31)},
      {ErrorUnit(Common::Error()), "Root Code = 0 LineTag = 0\n"},
      {ErrorUnit(Common::Error(0xFA0001, Common::LineTag{0xABCDEF0123456789, "f", "g", 3})),
       "Root Code = 16384001 LineTag = abcdef0123456789\n"},
      {ErrorUnit(Common::Error(5, u"two\nlines", Common::LineTag{1, "f", "g", 3})),
       "Root Code = 5 LineTag = 1 Message = two\nlines\n"},
      {Array(), "Root (Array)\n"},
      {Composite(), "Root (Composite)\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(Print(*c.unit), c.text);
}

TEST(UnitPrinter, TraitsThenMembersTwoBlanksDeeper) {
  OwnedUnit object = Composite("Tags", Array(Text(u"one"), Composite("In\u00e9r", Nil())), "Size",
                               With(QWord(4096), "Unit", Text(u"byte")), "Name", Text(u"alpha"));
  object = With(With(std::move(object), "PrimaryKey", Nil()), "Kind", Text(u"Sample"));
  EXPECT_EQ(Print(*object, 2),
            "  Root (Composite)\n"
            "    [Kind (Common::String) = Sample]\n"
            "    [PrimaryKey (NIL)]\n"
            "    Name (Common::String) = alpha\n"
            "    Size (y) = 4096\n"
            "      [Unit (Common::String) = byte]\n"
            "    Tags (Array)\n"
            "      0 (Common::String) = one\n"
            "      1 (Composite)\n"
            "        In\u00e9r (NIL)\n");
}

TEST(UnitPrinter, ATraitStaysInOneLine) {
  OwnedUnit inner = Composite("b", Boolean(true), "a", With(Nil(), "x", Array(Byte(7))));
  const OwnedUnit unit = With(Nil(), "T", With(std::move(inner), "own", DWord(1)));
  EXPECT_EQ(Print(*unit, 1),
            " Root (NIL)\n"
            "   [T (Composite)"
            "     [own (j) = 1]"
            "     a (NIL)"
            "       [x (Array)"
            "         0 (h) = 7"
            "       ]"
            "     b (b) = 1"
            "   ]\n");
}

TEST(UnitPrinter, ReasonsStandBeforeTheTraitsOfAnError) {
  Common::Error last(3, Common::LineTag{});
  Common::Error second(2, "second", Common::LineTag{0x20, nullptr, nullptr, 0});
  second.SetReason(last);
  Common::Error head(1, "first", Common::LineTag{0x10, nullptr, nullptr, 0});
  head.SetReason(second);
  const OwnedUnit unit = Composite("E", With(ErrorUnit(head), "T", Nil()));
  EXPECT_EQ(Print(*unit),
            "Root (Composite)\n"
            "  E Code = 1 LineTag = 10 Message = first\n"
            "    (SubError) Code = 2 LineTag = 20 Message = second\n"
            "      (SubError) Code = 3 LineTag = 0\n"
            "    [T (NIL)]\n");

  const OwnedUnit trait = With(Nil(), "T", ErrorUnit(second));
  EXPECT_EQ(Print(*trait),
            "Root (NIL)\n"
            "  [T Code = 2 LineTag = 20 Message = second    (SubError) Code = 3 LineTag = 0]\n");
}

// Prints on a thread whose stack is far too small for a frame per level.
std::string PrintOnSmallStack(const View::Unit& unit) {
  constexpr std::size_t kStack = std::size_t{192} << 10;
  struct Work {
    const View::Unit& unit;
    ObjProbe::CapturedOutput captured;
  } work{unit, {}};
  pthread_attr_t attributes;
  pthread_t thread;
  EXPECT_EQ(pthread_attr_init(&attributes), 0);
  EXPECT_EQ(pthread_attr_setstacksize(&attributes, kStack), 0);
  EXPECT_EQ(pthread_create(
                &thread, &attributes,
                [](void* argument) -> void* {
                  auto* const w = static_cast<Work*>(argument);
                  PrintUnit(w->unit, 0, w->captured.output);
                  return nullptr;
                },
                &work),
            0);
  EXPECT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
  return work.captured.Take();
}

TEST(UnitPrinter, TheStackDoesNotGrowWithTheNesting) {
  OwnedUnit unit = Nil();
  for (unsigned int level = 1; level < kMaxUnitDepth; ++level) {
    unit = level % 3 == 0   ? Composite("p", std::move(unit))
           : level % 3 == 1 ? Array(std::move(unit))
                            : With(Nil(), "t", std::move(unit));
  }
  const std::string text = PrintOnSmallStack(*unit);
  EXPECT_EQ(text.rfind("Root (Composite)\n  p (NIL)\n    [t (Array)      0 (Composite)", 0), 0u);

  Common::Error chain(1, Common::LineTag{});
  constexpr std::size_t kReasons = 2000;
  for (std::size_t i = 0; i < kReasons; ++i) {
    Common::Error next(2, Common::LineTag{});
    next.SetReason(chain);
    chain = next;
  }
  const std::string reasons = PrintOnSmallStack(*ErrorUnit(chain));
  const std::string last =
      "\n" + std::string(2 * kReasons, ' ') + "(SubError) Code = 1 LineTag = 0\n";
  ASSERT_GT(reasons.size(), last.size());
  EXPECT_EQ(reasons.substr(reasons.size() - last.size()), last);
}

TEST(UnitPrinter, AnObjectCostsOneAllocationAtMost) {
  OwnedUnit unit = Composite();
  for (char c = 'A'; c <= 'Z'; ++c) {
    AddProperty(*unit, Name::FromUtf8(std::string_view(&c, 1)),
                With(Text(u"a text longer than any small string is"), "Trait", Double(0.5)),
                Factory());
  }
  ObjProbe::CapturedOutput captured;
  const TestSupport::AllocationWatch watch;
  PrintUnit(*unit, 2, captured.output);
  EXPECT_LE(watch.GetCount(), 1u);
}

}  // namespace
}  // namespace Por::Util
