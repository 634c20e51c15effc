#include <gtest/gtest.h>

#include <new>
#include <thread>

#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/custom_action_failure_handler.h"
#include "enterprise/common/async/delegating_action_handler.h"
#include "enterprise/common/async/life_cycle_completion.h"
#include "enterprise/common/async/operation_description.h"
#include "enterprise/common/async/synchronizer.h"
#include "enterprise/common/async/waiting_handler.h"
#include "enterprise/common/async/work.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::Failure;
using Testing::FakeHandler;
using Testing::FakeJob;
using Testing::kFailure;
using Testing::TraceRecorder;

TEST(WaitingHandler, AutoResetTakesOneResultPerWait) {
  WaitingHandler handler(true);
  handler.Completed(Failure());
  EXPECT_EQ(handler.Wait(nullptr).GetCode(), kFailure);
  // The first result is used up: this wait can only end with the second.
  std::thread other([&] { handler.Completed({}); });
  EXPECT_EQ(handler.Wait(nullptr).GetCode(), 0u);
  other.join();
}

TEST(WaitingHandler, ManualResetKeepsTheResult) {
  WaitingHandler handler(false);
  handler.Completed(Failure());
  EXPECT_EQ(handler.Wait(nullptr).GetCode(), kFailure);
  EXPECT_EQ(handler.Wait(nullptr).GetCode(), kFailure);
}

TEST(Synchronizer, DiesRightAfterWaitWhileCompletedReturns) {
  for (int turn = 0; turn < 500; ++turn) {
    auto synchronizer = std::make_unique<Synchronizer>();
    std::thread other([handler = synchronizer.get()] { handler->Completed(Failure()); });
    EXPECT_EQ(synchronizer->Wait(nullptr).GetCode(), kFailure);
    synchronizer.reset();
    other.join();
  }
}

class ThrowingFilter : public DelegatingActionHandler {
 public:
  using DelegatingActionHandler::DelegatingActionHandler;
  Common::Error Filter(const Common::Error&) override { throw Failure(0x99); }
};

TEST(DelegatingActionHandler, DeliversTheErrorOfItsFilterInFrontOfTheResult) {
  FakeHandler target;
  ThrowingFilter(&target).Completed(Failure());
  ASSERT_EQ(target.results.size(), 1u);
  EXPECT_EQ(target.results[0].GetCode(), 0x99u);
  EXPECT_EQ(target.results[0].GetNextError().GetCode(), kFailure);
}

TEST(DelegatingActionHandler, LetsExceptionsOfTheDelegateThrough) {
  FakeHandler target;
  target.in_completed = [] { throw Failure(0x98); };
  DelegatingActionHandler handler(&target);
  EXPECT_THROW(handler.Completed({}), Common::Error);
  EXPECT_EQ(target.results.size(), 1u);
}

TEST(DelegatingActionHandler, AssertsADelegate) {
  TraceRecorder traces;
  DelegatingActionHandler(nullptr).Completed({});
  EXPECT_EQ(traces.Assertions(),
            std::vector<std::string>{"Handler && \"Invalid Delegating Action Handler state.\""});
}

TEST(CustomActionFailureHandler, CallsItsFunctorOnFailuresOnly) {
  FakeHandler target;
  int calls = 0;
  auto count = [&calls] { ++calls; };
  Detail::CustomActionFailureHandler<decltype(count)> handler(&target, count);
  handler.Completed({});
  EXPECT_EQ(calls, 0);
  handler.Completed(Failure());
  EXPECT_EQ(calls, 1);
  ASSERT_EQ(target.results.size(), 2u);
  EXPECT_EQ(target.results[1].GetCode(), kFailure);
}

TEST(ActionAdaptor, HandsTheHandlerInAndTheJobOut) {
  FakeHandler handler;
  const auto job = std::make_shared<FakeJob>();
  const auto body = [&](ActionHandler& given) {
    given.Completed({});
    return job;
  };
  EXPECT_EQ(MakeAction(body)->Perform(handler), job);
  EXPECT_EQ(ActionRefAdaptor(body).Perform(handler), job);
  EXPECT_EQ(handler.results.size(), 2u);
}

TEST(SilentWorkAdaptor, SucceedsAndHoldsItsGuard) {
  auto guard = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = guard;
  auto body = [] {};
  auto work = std::make_unique<SilentWorkAdaptor<decltype(body), std::shared_ptr<void>>>(
      body, std::move(guard));
  EXPECT_EQ(work->Execute().GetCode(), 0u);
  EXPECT_FALSE(watch.expired());
  work.reset();
  EXPECT_TRUE(watch.expired());
}

class Witness : public FakeJob {
 public:
  Witness(std::vector<std::string>& log, std::string name) : log_(log), name_(std::move(name)) {}
  ~Witness() override { log_.push_back(name_); }

 private:
  std::vector<std::string>& log_;
  std::string name_;
};

TEST(LifeCycleCompletion, KeepsBothAndDropsTheSecondFirst) {
  std::vector<std::string> log;
  std::shared_ptr<Job> job =
      Detail::CompleteLifeCycle(std::shared_ptr<Job>(std::make_shared<Witness>(log, "object")),
                                std::shared_ptr<Job>(std::make_shared<Witness>(log, "owned")));
  std::shared_ptr<Job> copy = job;
  job.reset();
  EXPECT_TRUE(log.empty());
  copy->Cancel();
  const std::weak_ptr<Job> watch = copy;  // keeps the deleter, not what it held
  copy.reset();
  EXPECT_EQ(log, (std::vector<std::string>{"owned", "object"}));
}

TEST(StaticErrors, AreOneRecordWithTheirMessage) {
  const Common::ErrorRecord* records[4] = {};
  {
    std::vector<std::jthread> threads;
    for (auto& record : records) {
      threads.emplace_back([&record] { record = canceled_error.Get().GetRecord(); });
    }
  }
  for (const auto* record : records) EXPECT_EQ(record, canceled_error.Get().GetRecord());
  EXPECT_EQ(canceled_error.Get().GetMessage(), u"ASYNC: The operation has been canceled.");
  EXPECT_EQ(canceled_error.Get().GetCode(), 0xf90002u);
  EXPECT_STREQ(canceled_error.Get().GetLineTag().function, "Get");
  EXPECT_EQ(invalid_result_error.Get().GetMessage(), u"ASYNC: The operation result is invalid.");
  EXPECT_EQ(stop_sequence_error.Get().GetCode(), 0xf9000eu);
  EXPECT_EQ(stop_sequence_error.Get().GetMessage(), u"");
}

TEST(OperationDescription, NamesTheOperationAndTheException) {
  NamedOperationDescription description(Common::MessageRow::AsyncPerform);
  const Common::Error described = description.DescribeException(Failure());
  EXPECT_EQ(described.GetCode(), 0xf90006u);
  EXPECT_EQ(described.GetMessage(), u"ASYNC: Exception has occurred during operation 'Perform'.");
  EXPECT_EQ(described.GetNextError().GetCode(), kFailure);
  const Common::Error standard = description.DescribeStdException(std::bad_alloc());
  EXPECT_EQ(standard.GetCode(), 0xf90007u);
  EXPECT_EQ(standard.GetMessage(),
            u"ASYNC: STD exception 'std::bad_alloc' has occurred during operation 'Perform'.");
  EXPECT_EQ(description.DescribeUnknownException().GetCode(), 0xf90008u);
  EXPECT_EQ(description.DescribeUnknownException().GetMessage(),
            u"ASYNC: Unknown exception has occurred during operation 'Perform'.");
}

class ThrowingDescription : public OperationDescription {
 public:
  Common::Error DescribeException(const Common::Error&) override { throw Failure(1); }
  Common::Error DescribeStdException(const std::exception&) override { throw Failure(1); }
  Common::Error DescribeUnknownException() override { throw Failure(1); }
};

TEST(OperationDescription, SafeOneFallsBack) {
  ThrowingDescription throwing;
  SafeOperationDescription safe(throwing);
  EXPECT_EQ(safe.DescribeException(Failure()).GetCode(), kFailure);
  EXPECT_EQ(safe.DescribeStdException(std::bad_alloc()).GetCode(), Common::kOutOfMemoryCode);
  EXPECT_EQ(safe.DescribeUnknownException().GetCode(), Common::kOutOfMemoryCode);
}

TEST(BaseJob, CountsUpAndDescribesItself) {
  FakeJob first;
  FakeJob second;
  EXPECT_GE(first.GetId(), 1u);
  EXPECT_EQ(second.GetId(), first.GetId() + 1);
  const JobDescription description = first.Describe();
  EXPECT_EQ(description.text, u"ASYNC: Unidentified job.");
  EXPECT_STREQ(description.tag.function, "Describe");
}

}  // namespace
}  // namespace Async
