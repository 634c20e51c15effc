#include "enterprise/common/dml/safe_invoke.h"

#include <gtest/gtest.h>

#include <new>
#include <vector>

#include "tests/enterprise/common/dml/scripted_post_office.h"
#include "tests/support/trace_recorder.h"

namespace Dml {
namespace {

TEST(ReadObjects, OneThatRaisesOrIsMissingDoesNotKeepTheOthersBack) {
  const TestSupport::TraceRecorder traces;
  NotingReader reader;
  reader.raises_at = 2;
  const Por::SharedUnit first = MakeUnit(1), second = MakeUnit(2), third = MakeUnit(3);
  ReadObjects({first, second, nullptr, third}, reader);
  EXPECT_EQ(reader.objects,
            (std::vector<const Por::View::Unit*>{first.get(), second.get(), third.get()}));
  EXPECT_EQ(traces.Codes(), "1 fc 1\n1 fc 1\n");
}

TEST(GetBaseError, TracesTheCauseBehindItsOwnText) {
  const TestSupport::TraceRecorder traces;
  GetBaseError(Common::Error(0x1234, "the cause", Common::LineTag{}));
  const auto lines = traces.All();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text.rfind("Error 0xfc0001: Exception from callback.\n", 0), 0u);
  EXPECT_NE(lines[0].text.find("\n| error 0x1234: the cause\n"), std::string::npos);
}

TEST(SafeInvoke, OtherExceptionsPassThrough) {
  EXPECT_THROW(SafeInvoke([] { throw std::bad_alloc(); }), std::bad_alloc);
}

TEST(ReadUpdates, CallsTheOperationOfTheKindAndSkipsOthers) {
  const Por::SharedUnit key = MakeUnit(1), diff = MakeUnit(2);
  NotingChanges changes;
  const TestSupport::TraceRecorder traces;
  ReadUpdates(
      {{0, key, nullptr}, {7, key, diff}, {7, nullptr, nullptr}, {1, key, diff}, {2, key, nullptr}},
      changes);
  EXPECT_EQ(changes.Take(), "+1*1,2-1");
  EXPECT_EQ(traces.Codes(), "");

  ReadUpdates({{0, nullptr, nullptr},
               {1, key, nullptr},
               {1, nullptr, diff},
               {2, nullptr, nullptr},
               {2, key, nullptr}},
              changes);
  EXPECT_EQ(changes.Take(), "-1");
  EXPECT_EQ(traces.Codes(), "1 fc 1\n1 fc 1\n1 fc 1\n1 fc 1\n");
}

}  // namespace
}  // namespace Dml
