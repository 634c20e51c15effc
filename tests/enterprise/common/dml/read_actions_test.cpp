#include "enterprise/common/dml/read_actions.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tests/enterprise/common/dml/scripted_post_office.h"
#include "tests/support/allocation_watch.h"

namespace Dml {
namespace {

class ReadActions : public ::testing::Test {
 protected:
  ReadActions() {
    spec_.pattern = MakeUnit(1);
    spec_.options = MakeUnit(2);
    // The office gives the reader back with the job that it leaves running.
    office_.work = [this](std::shared_ptr<ReportReader> reader, Async::ActionHandler& handler) {
      reader_ = reader;
      asked_handler_ = &handler;
      reader.reset();
      watch_.emplace(0, fail_next_);
      return job_;
    };
  }

  std::shared_ptr<Async::Job> PerformReport() {
    Actions::Report action(entry_point_, spec_, target_, office_);
    return Perform(action);
  }
  std::shared_ptr<Async::Job> Perform(Async::Action& action) {
    std::shared_ptr<Async::Job> job = action.Perform(handler_);
    failed_ = watch_->GetFailureCount();
    watch_.reset();
    return job;
  }

  const Core::EntryPoint entry_point_{Common::LineTag{77, "some/file", "F", 7}};
  ViewSpec spec_;
  NotingReader target_;
  Told handler_;
  ScriptedPostOffice office_;
  std::shared_ptr<TestJob> job_ = std::make_shared<TestJob>();
  std::weak_ptr<ReportReader> reader_;
  Async::ActionHandler* asked_handler_ = nullptr;
  std::optional<TestSupport::AllocationWatch> watch_;
  unsigned int fail_next_ = 0;
  unsigned long long failed_ = 0;
};

TEST_F(ReadActions, HandTheOfficeWhatTheyWereGiven) {
  std::unique_ptr<Subscription> subscription;
  Actions::Subscribe subscribe(entry_point_, spec_, target_, subscription, office_);
  const std::shared_ptr<Async::Job> job = Perform(subscribe);
  EXPECT_EQ(office_.asked_entry_point.location, 77u);
  EXPECT_EQ(office_.asked_entry_point.file, "some/file");
  EXPECT_EQ(office_.asked_entry_point.line, 7u);
  EXPECT_EQ(office_.asked_spec.pattern, spec_.pattern);
  EXPECT_EQ(office_.asked_spec.options, spec_.options);
  EXPECT_EQ(office_.asked_subscription, &subscription);
  EXPECT_EQ(asked_handler_, &handler_);
  EXPECT_TRUE(handler_.results.empty());
  // The reader leads to the caller's one.
  const Por::SharedUnit unit = MakeUnit(3);
  reader_.lock()->Read(*unit);
  EXPECT_EQ(target_.objects, std::vector<const Por::View::Unit*>{unit.get()});
}

TEST_F(ReadActions, TheJobKeepsItsReaderBeyondTheAction) {
  std::shared_ptr<Async::Job> job = PerformReport();
  EXPECT_EQ(job.get(), job_.get());
  const std::weak_ptr<TestJob> plain = std::exchange(job_, nullptr);
  std::shared_ptr<Async::Job> copy = job;
  job.reset();
  EXPECT_FALSE(reader_.expired());
  EXPECT_FALSE(plain.expired());
  copy.reset();
  EXPECT_TRUE(reader_.expired());
  EXPECT_TRUE(plain.expired());

  // Without a job the empty pointer does.
  job = PerformReport();
  EXPECT_EQ(job.get(), nullptr);
  EXPECT_FALSE(reader_.expired());
  job.reset();
  EXPECT_TRUE(reader_.expired());
}

TEST_F(ReadActions, TheEighthFailureToAllocateCancelsTheJob) {
  fail_next_ = 7;
  std::shared_ptr<Async::Job> job = PerformReport();
  EXPECT_EQ(failed_, 7u);
  EXPECT_EQ(job_->cancels, 0);
  EXPECT_FALSE(reader_.expired());
  job.reset();
  EXPECT_TRUE(reader_.expired());

  fail_next_ = 9;
  job = PerformReport();
  EXPECT_EQ(failed_, 8u);
  EXPECT_EQ(job.get(), job_.get());
  EXPECT_EQ(job_->cancels, 1);
  EXPECT_TRUE(reader_.expired());
  EXPECT_EQ(job.use_count(), 2);  // the test's and the plain one

  job.reset();
  job_.reset();  // nothing to cancel
  EXPECT_EQ(PerformReport(), nullptr);
  EXPECT_EQ(failed_, 8u);
}

}  // namespace
}  // namespace Dml
