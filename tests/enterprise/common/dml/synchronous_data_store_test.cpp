#include "enterprise/common/dml/synchronous_data_store.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "enterprise/common/dml/safe_invoke.h"
#include "tests/enterprise/common/dml/scripted_post_office.h"

namespace Dml {
namespace {

class SynchronousDataStoreTest : public ::testing::Test {
 protected:
  // The error that the report ended with; empty if it returned.
  Common::Error Report(PostOffice* office) {
    SynchronousDataStore store(office, Por::GetStaticUnitFactory());
    try {
      store.Report(Core::EntryPoint(), ViewSpec(), reader_);
    } catch (const Common::Error& error) {
      return error;
    }
    return Common::Error();
  }

  ScriptedPostOffice office_;
  NotingReader reader_;
};

TEST_F(SynchronousDataStoreTest, WithoutAPostOfficeItNamesWhatIsMissing) {
  const Common::Error error = Report(nullptr);
  EXPECT_EQ(error.GetCode(), 0xFC0031u);
  EXPECT_EQ(error.GetMessage(), u"DML: Unproper use. Missing PostOffice.");
  EXPECT_STREQ(error.GetLineTag().function, "Report");
}

TEST_F(SynchronousDataStoreTest, WaitsForAReportOnAnotherThreadAndRaisesItsFailureAsItCame) {
  std::jthread thread;
  Common::Error result;
  office_.work = [&](std::shared_ptr<ReportReader> reader, Async::ActionHandler& handler) {
    thread = std::jthread([reader, &handler, result] {
      ReadObjects({MakeUnit(1), MakeUnit(2)}, *reader);
      handler.Completed(result);
    });
    return std::make_shared<TestJob>();
  };
  EXPECT_FALSE(Report(&office_).IsFailure());
  EXPECT_EQ(reader_.objects.size(), 2u);

  result = Common::Error(0x40001, u"unreadable", Common::LineTag{});
  const Common::Error error = Report(&office_);
  EXPECT_EQ(error.GetCode(), 0x40001u);
  EXPECT_EQ(error.GetMessage(), u"unreadable");
  EXPECT_EQ(error.GetNextError().GetRecord(), nullptr);
}

}  // namespace
}  // namespace Dml
