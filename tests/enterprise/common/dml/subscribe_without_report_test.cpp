#include "enterprise/common/dml/subscribe_without_report.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/async_error.h"
#include "tests/enterprise/common/dml/scripted_post_office.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/trace_recorder.h"

namespace Dml {
namespace {

constexpr std::uint32_t kFailure = 0x1234;

Common::Error Failure(std::uint32_t code = kFailure) {
  return Common::Error(code, Common::LineTag{});
}

unsigned int GetNumber(const Por::View::Unit& unit) {
  return Por::Util::GetValue<unsigned int>(unit);
}

// Keeps the handler of its read for the test.
class ScriptedSubscription final : public Subscription {
 public:
  std::shared_ptr<Async::Job> Read(SubscriptionReader& reader,
                                   Async::ActionHandler& handler) override {
    if (tells_end) handler.Completed({});
    if (raises) throw Failure();
    asked_reader = &reader;
    asked_handler = &handler;
    return job;
  }
  bool raises = false;
  bool tells_end = false;
  SubscriptionReader* asked_reader = nullptr;
  Async::ActionHandler* asked_handler = nullptr;
  std::shared_ptr<TestJob> job = std::make_shared<TestJob>();
};

// The office delivers these objects and a scripted subscription.
class SubscribeSteps : public ::testing::Test {
 protected:
  SubscribeSteps() {
    office_.work = [this](std::shared_ptr<ReportReader> reader,
                          Async::ActionHandler& handler) -> std::shared_ptr<Async::Job> {
      for (const unsigned int value : snapshot_) reader->Read(*MakeUnit(value));
      if (delivers_) {
        auto base = std::make_unique<ScriptedSubscription>();
        base_ = base.get();
        *office_.asked_subscription = std::move(base);
      }
      if (running_ == nullptr) {
        handler.Completed({});
      } else {
        asked_ = &handler;
      }
      return running_;
    };
  }

  void Subscribe(std::shared_ptr<Async::Action> next = nullptr) {
    job_ = SubscribeWithoutReport(Core::EntryPoint(), office_, *Por::GetStaticUnitFactory(),
                                  ViewSpec(), subscription_, std::move(next), told_);
  }
  std::shared_ptr<Async::Job> Read() { return subscription_->Read(reader_, read_); }

  ScriptedPostOffice office_;
  std::vector<unsigned int> snapshot_;
  bool delivers_ = true;
  std::shared_ptr<TestJob> running_;  // the office's job; if there is one the test tells its end
  Async::ActionHandler* asked_ = nullptr;
  ScriptedSubscription* base_ = nullptr;
  std::shared_ptr<Async::Job> job_;
  std::unique_ptr<Subscription> subscription_;
  Told told_;
  NotingChanges reader_;
  Told read_;
};

TEST_F(SubscribeSteps, TheFirstReadDeliversTheSnapshotAndNothingElse) {
  snapshot_ = {1, 2, 3};
  Subscribe();
  ASSERT_EQ(told_.results.size(), 1u);
  EXPECT_EQ(told_.results[0].GetCode(), 0u);
  EXPECT_EQ(reader_.Take(), "");
  job_.reset();  // the copies don't hang on it

  reader_.in_read = [](const Por::View::Unit& unit) {
    if (GetNumber(unit) == 2) throw Failure();  // loses nothing but its own object
  };
  EXPECT_EQ(Read(), nullptr);
  EXPECT_EQ(reader_.Take(), "+1+3");
  ASSERT_EQ(read_.results.size(), 1u);
  EXPECT_EQ(read_.results[0].GetCode(), 0u);
  EXPECT_EQ(base_->asked_handler, nullptr);

  EXPECT_EQ(Read(), base_->job);
  EXPECT_EQ(base_->asked_reader, &reader_);
  EXPECT_EQ(reader_.Take(), "");
  EXPECT_EQ(read_.results.size(), 1u);
  base_->asked_handler->Completed({});
  EXPECT_EQ(read_.results.size(), 2u);
}

// What a reader raises is traced as it is: cancels and the like at the debug level, wherever they
// stand in the chain.
TEST_F(SubscribeSteps, FailuresOfReadersAreTracedByTheirCodes) {
  reader_.in_read = [](const Por::View::Unit& unit) {
    if (GetNumber(unit) != 0) throw Failure(GetNumber(unit));
    Common::Error wrapped = Failure();
    wrapped.SetReason(Failure(0xF90002));
    throw Common::Error(wrapped);
  };
  snapshot_ = {kFailure, 0xF90002, 0xF9000A, 0xF90017, 0};
  Subscribe();
  const TestSupport::TraceRecorder traces;
  Read();
  EXPECT_EQ(traces.Codes(), "4 0 1234\n1 f9 2\n1 f9 a\n1 f9 17\n1 0 1234\n");
}

TEST_F(SubscribeSteps, ASecondReadIsRefusedAndDisturbsNothing) {
  Subscribe();
  const auto running = Read();
  Told second;
  EXPECT_EQ(subscription_->Read(reader_, second), nullptr);
  ASSERT_EQ(second.results.size(), 1u);
  EXPECT_EQ(second.results[0].GetCode(), Async::kInvalidResultCode);
  EXPECT_TRUE(read_.results.empty());
  // A failed read can be followed by another one.
  base_->asked_handler->Completed(Failure());
  ASSERT_EQ(read_.results.size(), 1u);
  EXPECT_EQ(read_.results[0].GetCode(), kFailure);
  EXPECT_EQ(Read(), base_->job);
  base_->asked_handler->Completed({});
  EXPECT_EQ(read_.results.size(), 2u);
  // So can one that could not start.
  base_->raises = true;
  EXPECT_THROW(Read(), Common::Error);
  base_->raises = false;
  EXPECT_EQ(Read(), base_->job);
  base_->asked_handler->Completed({});
  EXPECT_EQ(read_.results.size(), 3u);
}

// Against its contract, but the read that was begun meanwhile must not suffer.
TEST_F(SubscribeSteps, ABaseThatRaisesBehindItsEndLeavesTheNextReadAlone) {
  Subscribe();
  Told second;
  read_.then = [&] {
    base_->raises = base_->tells_end = false;
    subscription_->Read(reader_, second);
    base_->raises = true;
  };
  base_->raises = base_->tells_end = true;
  EXPECT_THROW(Read(), Common::Error);
  base_->asked_handler->Completed({});
  EXPECT_EQ(second.results.size(), 1u);
  EXPECT_EQ(read_.results.size(), 1u);
}

TEST_F(SubscribeSteps, TheHandlerMayDestroyTheSubscription) {
  read_.then = [this] { subscription_.reset(); };
  snapshot_ = {1, 2};
  Subscribe();
  EXPECT_EQ(Read(), nullptr);
  EXPECT_EQ(subscription_, nullptr);
  EXPECT_EQ(reader_.Take(), "+1+2");
}

// What the office has delivered is gone when the caller is told: it may destroy the office then.
TEST_F(SubscribeSteps, AFailureOrALackOfMemoryLeavesThePlaceAsItWas) {
  snapshot_ = {1};
  for (const bool lacks_memory : {false, true}) {
    running_ = std::make_shared<TestJob>();
    Subscribe();
    told_.then = [base = std::weak_ptr<TestJob>(base_->job)] { EXPECT_TRUE(base.expired()); };
    {
      const Common::Error result = lacks_memory ? Common::Error() : Failure();
      const TestSupport::AllocationWatch watch(0, lacks_memory ? 1 : 0);
      asked_->Completed(result);
      EXPECT_EQ(watch.HasFailed(), lacks_memory);
    }
    ASSERT_FALSE(told_.results.empty());
    EXPECT_TRUE(told_.results.back().HoldsCode(lacks_memory ? Common::kOutOfMemoryCode : kFailure));
    EXPECT_EQ(subscription_, nullptr);
  }
  EXPECT_EQ(told_.results.size(), 2u);

  running_ = nullptr;  // there is memory again
  told_.then = nullptr;
  Subscribe();
  EXPECT_EQ(Read(), nullptr);
  EXPECT_EQ(reader_.Take(), "+1");
}

TEST_F(SubscribeSteps, WhatComesNextDecidesTheResult) {
  const Subscription* first = nullptr;
  Common::Error result;
  const auto next = [&](Async::ActionHandler& handler) -> std::shared_ptr<Async::Job> {
    EXPECT_EQ(subscription_.get(), first);
    handler.Completed(result);
    return nullptr;
  };
  Subscribe(Async::MakeAction(next));
  ASSERT_EQ(told_.results.size(), 1u);
  EXPECT_NE(subscription_, nullptr);
  first = subscription_.get();
  result = Failure();
  Subscribe(Async::MakeAction(next));
  ASSERT_EQ(told_.results.size(), 2u);
  EXPECT_TRUE(told_.results[1].HoldsCode(kFailure));
  EXPECT_EQ(subscription_.get(), first);
}

TEST_F(SubscribeSteps, AnOfficeThatDeliversNothingIsAssertedAndItsReadsSaySo) {
  delivers_ = false;
  testing::internal::CaptureStderr();
  Subscribe();
  EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with(
      "Assertion failed: BaseSubscription.get() != 0, file "));
  ASSERT_EQ(told_.results.size(), 1u);
  EXPECT_EQ(told_.results[0].GetCode(), 0u);
  EXPECT_EQ(Read(), nullptr);
  ASSERT_EQ(read_.results.size(), 1u);
  EXPECT_EQ(read_.results[0].GetCode(), 0xFC0017u);
  EXPECT_EQ(read_.results[0].GetMessage(), u"DML: Cannot access a disposed object.");
}

TEST_F(SubscribeSteps, CancelReachesThePostOffice) {
  running_ = std::make_shared<TestJob>();
  Subscribe();
  job_->Cancel();
  EXPECT_EQ(running_->cancels, 1);
  asked_->Completed(Async::canceled_error.Get());
  ASSERT_EQ(told_.results.size(), 1u);
  EXPECT_TRUE(told_.results[0].HoldsCode(Async::kCanceledCode));
}

}  // namespace
}  // namespace Dml
