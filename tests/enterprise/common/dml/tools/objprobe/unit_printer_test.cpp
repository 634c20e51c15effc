#include "enterprise/common/dml/tools/objprobe/unit_printer.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <utility>

#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"
#include "tests/enterprise/common/dml/tools/objprobe/captured_output.h"
#include "tests/support/allocation_watch.h"

namespace Por::Util {
namespace {

const Construction::InMemoryUnitFactory factory;

// Puts properties and elements into a unit.
class Grow final : public Construction::NullVisitor {
 public:
  Grow(const Name& name, OwnedUnit member) : name_(name), member_(std::move(member)) {}
  using Construction::NullVisitor::Visit;
  void Visit(Construction::ArrayValue& value) override { value.PushBack(std::move(member_)); }
  void Visit(Construction::CompositeValue& value) override {
    value.Set(factory.CreateProperty(name_, std::move(member_)));
  }

 private:
  const Name name_;
  OwnedUnit member_;
};

OwnedUnit With(OwnedUnit unit, const Name& name, OwnedUnit member) {
  Grow grow(name, std::move(member));
  unit->Accept(grow);
  return unit;
}
OwnedUnit WithElement(OwnedUnit unit, OwnedUnit member) {
  return With(std::move(unit), Name(), std::move(member));
}
OwnedUnit WithTrait(OwnedUnit unit, const Name& name, OwnedUnit value) {
  unit->GetTraits().Add(factory.CreateTrait(name, std::move(value)));
  return unit;
}

std::string Print(const View::Unit& unit, std::size_t indent = 0) {
  ObjProbe::CapturedOutput captured;
  PrintUnit(unit, indent, captured.output);
  return captured.Take();
}

TEST(UnitPrinter, EachKindHasItsTypeColumn) {
  const Common::Guid guid{{0xE0, 0x04, 0x25, 0x3F, 0x89, 0x4F, 0xD3, 0x11, 0x9A, 0x0C, 0x03, 0x05,
                           0xE8, 0x2C, 0x33, 0x01}};
  const struct {
    OwnedUnit unit;
    std::string text;
  } cases[] = {
      {factory.CreateNil(), "Root (NIL)\n"},
      {factory.CreateBoolean(true), "Root (b) = 1\n"},
      {factory.CreateBoolean(false), "Root (b) = 0\n"},
      {factory.CreateByte(65), "Root (h) = 65\n"},
      {factory.CreateSByte(-128), "Root (a) = -128\n"},
      {factory.CreateWord(65535), "Root (t) = 65535\n"},
      {factory.CreateSWord(-32768), "Root (s) = -32768\n"},
      {factory.CreateDWord(4294967295u), "Root (j) = 4294967295\n"},
      {factory.CreateSDWord(-2147483647 - 1), "Root (i) = -2147483648\n"},
      {factory.CreateQWord(18446744073709551615u), "Root (y) = 18446744073709551615\n"},
      {factory.CreateSQWord(-9223372036854775807 - 1), "Root (x) = -9223372036854775808\n"},
      {factory.CreateDouble(0.1), "Root (d) = 0.1\n"},
      {factory.CreateDouble(1e300), "Root (d) = 1e+300\n"},
      {factory.CreateBlob({}), "Root (Blob) Size = 0\n"},
      {factory.CreateBlob(std::vector<unsigned char>(300)), "Root (Blob) Size = 300\n"},
      {factory.CreateGuid(guid), "Root (Common::Guid) = 3F2504E0-4F89-11D3-9A0C-0305E82C3301\n"},
      {factory.CreateString(u""), "Root (Common::String) = \n"},
      {factory.CreateString(Common::String(u"a\0\u20AC\n", 4)),
       std::string("Root (Common::String) = a\0\xE2\x82\xAC\n\n", 31)},
      {factory.CreateError(Common::Error()), "Root Code = 0 LineTag = 0\n"},
      {factory.CreateError(
           Common::Error(0xFA0001, Common::LineTag{0xABCDEF0123456789, "f", "g", 3})),
       "Root Code = 16384001 LineTag = abcdef0123456789\n"},
      {factory.CreateError(Common::Error(5, u"two\nlines", Common::LineTag{1, "f", "g", 3})),
       "Root Code = 5 LineTag = 1 Message = two\nlines\n"},
      {factory.CreateArray(), "Root (Array)\n"},
      {factory.CreateComposite(), "Root (Composite)\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(Print(*c.unit), c.text);
}

TEST(UnitPrinter, TraitsThenMembersTwoBlanksDeeper) {
  OwnedUnit tags = WithElement(factory.CreateArray(), factory.CreateString(u"one"));
  tags = WithElement(std::move(tags),
                     With(factory.CreateComposite(), "In\u00e9r", factory.CreateNil()));
  OwnedUnit size = WithTrait(factory.CreateQWord(4096), "Unit", factory.CreateString(u"byte"));
  OwnedUnit object = With(factory.CreateComposite(), "Tags", std::move(tags));
  object = With(std::move(object), "Size", std::move(size));
  object = With(std::move(object), "Name", factory.CreateString(u"alpha"));
  object = WithTrait(std::move(object), "PrimaryKey", factory.CreateNil());
  object = WithTrait(std::move(object), "Kind", factory.CreateString(u"Sample"));
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
  OwnedUnit inner = With(factory.CreateComposite(), "b", factory.CreateBoolean(true));
  inner = With(std::move(inner), "a",
               WithTrait(factory.CreateNil(), "x",
                         WithElement(factory.CreateArray(), factory.CreateByte(7))));
  const OwnedUnit unit = WithTrait(factory.CreateNil(), "T",
                                   WithTrait(std::move(inner), "own", factory.CreateDWord(1)));
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
  OwnedUnit error = WithTrait(factory.CreateError(head), "T", factory.CreateNil());
  const OwnedUnit unit = With(factory.CreateComposite(), "E", std::move(error));
  EXPECT_EQ(Print(*unit),
            "Root (Composite)\n"
            "  E Code = 1 LineTag = 10 Message = first\n"
            "    (SubError) Code = 2 LineTag = 20 Message = second\n"
            "      (SubError) Code = 3 LineTag = 0\n"
            "    [T (NIL)]\n");

  const OwnedUnit trait = WithTrait(factory.CreateNil(), "T", factory.CreateError(second));
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
  OwnedUnit unit = factory.CreateNil();
  for (unsigned int level = 1; level < kMaxUnitDepth; ++level) {
    switch (level % 3) {
      case 0:
        unit = With(factory.CreateComposite(), "p", std::move(unit));
        break;
      case 1:
        unit = WithElement(factory.CreateArray(), std::move(unit));
        break;
      default:
        unit = WithTrait(factory.CreateNil(), "t", std::move(unit));
        break;
    }
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
  const std::string reasons = PrintOnSmallStack(*factory.CreateError(chain));
  const std::string last =
      "\n" + std::string(2 * kReasons, ' ') + "(SubError) Code = 1 LineTag = 0\n";
  ASSERT_GT(reasons.size(), last.size());
  EXPECT_EQ(reasons.substr(reasons.size() - last.size()), last);
}

TEST(UnitPrinter, AnObjectCostsOneAllocationAtMost) {
  OwnedUnit unit = factory.CreateComposite();
  for (char c = 'A'; c <= 'Z'; ++c) {
    unit = With(std::move(unit), Name::FromUtf8(std::string_view(&c, 1)),
                WithTrait(factory.CreateString(u"a text longer than any small string is"), "Trait",
                          factory.CreateDouble(0.5)));
  }
  ObjProbe::CapturedOutput captured;
  const TestSupport::AllocationWatch watch;
  PrintUnit(*unit, 2, captured.output);
  EXPECT_LE(watch.GetCount(), 1u);
}

}  // namespace
}  // namespace Por::Util
