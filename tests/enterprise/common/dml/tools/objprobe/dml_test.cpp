#include "enterprise/common/dml/tools/objprobe/dml.h"

#include <gtest/gtest.h>

#include "core/common/error.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "tests/enterprise/common/dml/scripted_post_office.h"

namespace ObjProbe {
namespace {

constexpr char kText[] =
    "<object id=\"3F2504E0-4F89-11D3-9A0C-0305E82C3301\">\n"
    "  Root (j) = 5\n"
    "    [PrimaryKey (Common::Guid) = 3F2504E0-4F89-11D3-9A0C-0305E82C3301]\n"
    "</object>\n"
    "\n";

Por::SharedUnit MakeObject() {
  const Por::Construction::InMemoryUnitFactory factory;
  const Common::Guid guid{{0xE0, 0x04, 0x25, 0x3F, 0x89, 0x4F, 0xD3, 0x11, 0x9A, 0x0C, 0x03, 0x05,
                           0xE8, 0x2C, 0x33, 0x01}};
  Por::OwnedUnit unit = factory.CreateDWord(5);
  unit->GetTraits().Add(factory.CreateTrait("PrimaryKey", factory.CreateGuid(guid)));
  return unit;
}

// Runs a report of these objects that ends with `result`, and returns what was printed.
std::string PrintReport(const std::vector<Por::SharedUnit>& objects, const Common::Error& result,
                        Common::Error& failure) {
  Dml::ScriptedPostOffice office;
  office.work = [&](std::shared_ptr<Dml::ReportReader> reader, Async::ActionHandler& handler) {
    Dml::ReadObjects(objects, *reader);
    handler.Completed(result);
    return nullptr;
  };
  ::testing::internal::CaptureStdout();
  try {
    Report(office, Dml::ViewSpec());
  } catch (const Common::Error& error) {
    failure = error;
  }
  StandardOutput().Flush();
  return ::testing::internal::GetCapturedStdout();
}

TEST(Report, AnObjectWithoutAKeyLeavesTheBeginningOfItsHead) {
  const Por::SharedUnit object = MakeObject(), without_key = Dml::MakeUnit(7);
  Common::Error failure;
  EXPECT_EQ(PrintReport({object, without_key, object, nullptr, without_key}, {}, failure),
            std::string(kText) + "<object id=\"" + kText + "<object id=\"");
  EXPECT_FALSE(failure.IsFailure());
  EXPECT_EQ(PrintReport({}, {}, failure), "");
}

TEST(Report, AFailureBecomesTheReasonOfCodeFive) {
  Common::Error failure;
  EXPECT_EQ(PrintReport({MakeObject()}, Common::Error(0x40001, Common::LineTag{}), failure), kText);
  EXPECT_EQ(failure.GetCode(), 5u);
  EXPECT_EQ(failure.GetMessage(), u"Report from data source has failed.");
  EXPECT_STREQ(failure.GetLineTag().function, "Report");
  EXPECT_EQ(failure.GetNextError().GetCode(), 0x40001u);
}

}  // namespace
}  // namespace ObjProbe
