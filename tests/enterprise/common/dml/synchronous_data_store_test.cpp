#include "enterprise/common/dml/synchronous_data_store.h"

#include <gtest/gtest.h>

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

TEST_F(SynchronousDataStoreTest, AnEmptyViewEndsWithoutACallOfTheReader) {
  office_.work = [](auto, Async::ActionHandler& handler) {
    handler.Completed(Common::Error());
    return nullptr;
  };
  EXPECT_FALSE(Report(&office_).IsFailure());
  EXPECT_TRUE(reader_.objects.empty());
}

TEST_F(SynchronousDataStoreTest, WaitsForAReportOnAnotherThread) {
  std::thread thread;
  office_.work = [&](std::shared_ptr<ReportReader> reader, Async::ActionHandler& handler) {
    auto job = std::make_shared<TestJob>();
    thread = std::thread([reader, job, &handler] {
      ReadObjects({MakeUnit(1), MakeUnit(2)}, *reader);
      handler.Completed(Common::Error());
    });
    return job;
  };
  EXPECT_FALSE(Report(&office_).IsFailure());
  EXPECT_EQ(reader_.objects.size(), 2u);
  thread.join();
}

TEST_F(SynchronousDataStoreTest, RaisesTheFailureOfTheReportAsItCame) {
  Async::ActionHandler* told = nullptr;
  std::thread thread;
  office_.work = [&](auto, Async::ActionHandler& handler) {
    told = &handler;
    auto job = std::make_shared<TestJob>();
    thread = std::thread([&handler, job] {
      handler.Completed(Common::Error(0x40001, u"unreadable", Common::LineTag{}));
    });
    return job;
  };
  const Common::Error error = Report(&office_);
  EXPECT_EQ(error.GetCode(), 0x40001u);
  EXPECT_EQ(error.GetMessage(), u"unreadable");
  EXPECT_EQ(error.GetNextError().GetRecord(), nullptr);
  thread.join();
}

TEST_F(SynchronousDataStoreTest, APostOfficeThatRaisesEndsTheReport) {
  office_.work = [](auto, Async::ActionHandler&) -> std::shared_ptr<Async::Job> {
    throw Common::Error(0x40007, Common::LineTag{});
  };
  EXPECT_TRUE(Report(&office_).HoldsCode(0x40007));
}

}  // namespace
}  // namespace Dml
