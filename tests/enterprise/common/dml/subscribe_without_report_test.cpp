#include "enterprise/common/dml/subscribe_without_report.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/por/unit_value_access.h"
#include "tests/enterprise/common/dml/scripted_post_office.h"
#include "tests/support/trace_recorder.h"

namespace Dml {
namespace {

constexpr std::uint32_t kFailure = 0x1234;

class Told final : public Async::ActionHandler {
 public:
  void Completed(Common::Error result) override { results.push_back(std::move(result)); }
  std::vector<Common::Error> results;
};

// Keeps the handler of its read for the test.
class ScriptedSubscription final : public Subscription {
 public:
  std::shared_ptr<Async::Job> Read(SubscriptionReader& reader,
                                   Async::ActionHandler& handler) override {
    if (raises) throw Common::Error(kFailure, Common::LineTag{});
    asked_reader = &reader;
    asked_handler = &handler;
    return job;
  }
  bool raises = false;
  SubscriptionReader* asked_reader = nullptr;
  Async::ActionHandler* asked_handler = nullptr;
  std::shared_ptr<TestJob> job = std::make_shared<TestJob>();
};

// Notes the values of created objects; raises at the marked one.
class CreatedReader : public SubscriptionReader {
 public:
  void OnCreated(const Por::View::Unit& object) override {
    values.push_back(Por::Util::GetValue<unsigned int>(object));
    if (values.size() == raises_at) throw Common::Error(kFailure, Common::LineTag{});
  }
  void OnUpdated(const Por::View::Unit&, const Por::View::Unit&) override {}
  void OnDeleted(const Por::View::Unit&) override {}
  std::vector<unsigned int> values;
  std::size_t raises_at = 0;  // from 1
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
      handler.Completed(subscribe_result_);
      return nullptr;
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
  Common::Error subscribe_result_;
  ScriptedSubscription* base_ = nullptr;
  std::shared_ptr<Async::Job> job_;
  std::unique_ptr<Subscription> subscription_;
  Told told_;
  CreatedReader reader_;
  Told read_;
};

TEST_F(SubscribeSteps, TheFirstReadDeliversTheSnapshotAndNothingElse) {
  snapshot_ = {1, 2, 3};
  Subscribe();
  ASSERT_EQ(told_.results.size(), 1u);
  EXPECT_EQ(told_.results[0].GetCode(), 0u);
  EXPECT_TRUE(reader_.values.empty());
  job_.reset();  // the copies don't hang on it

  reader_.raises_at = 2;  // loses nothing but its own object
  EXPECT_EQ(Read(), nullptr);
  EXPECT_EQ(reader_.values, (std::vector<unsigned int>{1, 2, 3}));
  ASSERT_EQ(read_.results.size(), 1u);
  EXPECT_EQ(read_.results[0].GetCode(), 0u);
  EXPECT_EQ(base_->asked_handler, nullptr);

  EXPECT_EQ(Read(), base_->job);
  EXPECT_EQ(base_->asked_reader, &reader_);
  EXPECT_EQ(reader_.values.size(), 3u);
  EXPECT_EQ(read_.results.size(), 1u);
  base_->asked_handler->Completed({});
  EXPECT_EQ(read_.results.size(), 2u);
}

// What a reader raises is traced as it is: cancels and the like at the debug level, wherever they
// stand in the chain.
TEST_F(SubscribeSteps, FailuresOfReadersAreTracedByTheirCodes) {
  struct Raiser : CreatedReader {
    void OnCreated(const Por::View::Unit& object) override {
      const unsigned int code = Por::Util::GetValue<unsigned int>(object);
      if (code != 0) throw Common::Error(code, Common::LineTag{});
      Common::Error wrapped(kFailure, Common::LineTag{});
      wrapped.SetReason(Common::Error(0xF90002, Common::LineTag{}));
      throw Common::Error(wrapped);
    }
  } raiser;
  snapshot_ = {kFailure, 0xF90002, 0xF9000A, 0xF90017, 0};
  Subscribe();
  const TestSupport::TraceRecorder traces;
  subscription_->Read(raiser, read_);
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
  base_->asked_handler->Completed(Common::Error(kFailure, Common::LineTag{}));
  ASSERT_EQ(read_.results.size(), 1u);
  EXPECT_EQ(read_.results[0].GetCode(), kFailure);
  EXPECT_EQ(Read(), base_->job);
  base_->asked_handler->Completed({});
  EXPECT_EQ(read_.results.size(), 2u);
}

TEST_F(SubscribeSteps, AReadThatCouldNotStartIsNoReadThatRuns) {
  Subscribe();
  base_->raises = true;
  EXPECT_THROW(Read(), Common::Error);
  base_->raises = false;
  EXPECT_EQ(Read(), base_->job);
  base_->asked_handler->Completed({});
  EXPECT_EQ(read_.results.size(), 1u);
}

TEST_F(SubscribeSteps, TheHandlerMayDestroyTheSubscription) {
  struct Destroyer : Async::ActionHandler {
    void Completed(Common::Error) override { subscription->reset(); }
    std::unique_ptr<Subscription>* subscription = nullptr;
  } destroyer;
  destroyer.subscription = &subscription_;
  snapshot_ = {1, 2};
  Subscribe();
  EXPECT_EQ(subscription_->Read(reader_, destroyer), nullptr);
  EXPECT_EQ(subscription_, nullptr);
  EXPECT_EQ(reader_.values.size(), 2u);
}

TEST_F(SubscribeSteps, AFailureLeavesThePlaceEmpty) {
  snapshot_ = {1};
  subscribe_result_ = Common::Error(kFailure, Common::LineTag{});
  Subscribe();
  ASSERT_EQ(told_.results.size(), 1u);
  EXPECT_TRUE(told_.results[0].HoldsCode(kFailure));
  EXPECT_EQ(subscription_, nullptr);
}

TEST_F(SubscribeSteps, WhatComesNextDecidesTheResult) {
  int performed = 0;
  Subscribe(Async::MakeAction([&](Async::ActionHandler& handler) -> std::shared_ptr<Async::Job> {
    EXPECT_EQ(subscription_, nullptr);
    handler.Completed(++performed == 1 ? Common::Error() : Common::Error(kFailure, {}));
    return nullptr;
  }));
  EXPECT_EQ(performed, 1);
  EXPECT_NE(subscription_, nullptr);
  const Subscription* const first = subscription_.get();
  Subscribe(Async::MakeAction([&](Async::ActionHandler& handler) -> std::shared_ptr<Async::Job> {
    handler.Completed(Common::Error(kFailure, {}));
    return nullptr;
  }));
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
  const auto running = std::make_shared<TestJob>();
  Async::ActionHandler* asked = nullptr;
  office_.work = [&](std::shared_ptr<ReportReader>,
                     Async::ActionHandler& handler) -> std::shared_ptr<Async::Job> {
    asked = &handler;
    return running;
  };
  Subscribe();
  job_->Cancel();
  EXPECT_EQ(running->cancels, 1);
  asked->Completed(Async::canceled_error.Get());
  ASSERT_EQ(told_.results.size(), 1u);
  EXPECT_TRUE(told_.results[0].HoldsCode(Async::kCanceledCode));
}

}  // namespace
}  // namespace Dml
