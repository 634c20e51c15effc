#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/custom_action_failure_handler.h"
#include "enterprise/common/async/delegating_action_handler.h"
#include "enterprise/common/async/life_cycle_completion.h"
#include "enterprise/common/async/operation_description.h"
#include "enterprise/common/async/waiting_handler.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::Failure;
using Testing::FakeHandler;
using Testing::FakeJob;
using Testing::JobWithAnEnd;
using Testing::kFailure;
using Testing::TraceRecorder;

TEST(WaitingHandler, TakesOneResultPerWaitOrKeepsIt) {
  WaitingHandler handler(true);
  handler.Completed(Failure());
  EXPECT_EQ(handler.Wait(nullptr).GetCode(), kFailure);
  // The first result is used up: this wait can only end with the second.
  std::thread other([&] { handler.Completed({}); });
  EXPECT_EQ(handler.Wait(nullptr).GetCode(), 0u);
  other.join();

  WaitingHandler manual(false);
  manual.Completed(Failure());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(manual.Wait(nullptr).GetCode(), kFailure);
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

TEST(DelegatingActionHandler, AssertsADelegateAndLetsItsExceptionsThrough) {
  FakeHandler target;
  target.in_completed = [] { throw Failure(0x98); };
  EXPECT_THROW(DelegatingActionHandler(&target).Completed({}), Common::Error);
  EXPECT_EQ(target.results.size(), 1u);

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

TEST(LifeCycleCompletion, KeepsBothAndDropsTheSecondFirst) {
  std::string log;
  const auto witness = [&log](const char* name) -> std::shared_ptr<Job> {
    return std::make_shared<JobWithAnEnd>([&log, name] { log += name; });
  };
  std::shared_ptr<Job> job = Detail::CompleteLifeCycle(witness("object "), witness("owned "));
  std::shared_ptr<Job> copy = job;
  job.reset();
  EXPECT_EQ(log, "");
  const std::weak_ptr<Job> watch = copy;  // keeps the deleter, not what it held
  copy.reset();
  EXPECT_EQ(log, "owned object ");
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
  const Common::Error unknown = description.DescribeUnknownException();
  EXPECT_EQ(unknown.GetCode(), 0xf90008u);
  EXPECT_EQ(unknown.GetMessage(),
            u"ASYNC: Unknown exception has occurred during operation 'Perform'.");
}

TEST(OperationDescription, SafeOneFallsBack) {
  class : public OperationDescription {
    Common::Error DescribeException(const Common::Error&) override { throw Failure(1); }
    Common::Error DescribeStdException(const std::exception&) override { throw Failure(1); }
    Common::Error DescribeUnknownException() override { throw Failure(1); }
  } throwing;
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
  EXPECT_EQ(first.Describe().text, u"ASYNC: Unidentified job.");
  EXPECT_STREQ(first.Describe().tag.function, "Describe");
}

}  // namespace
}  // namespace Async
