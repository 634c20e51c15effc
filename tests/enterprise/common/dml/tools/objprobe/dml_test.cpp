#include "enterprise/common/dml/tools/objprobe/dml.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/service.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "tests/enterprise/common/dml/scripted_post_office.h"
#include "tests/enterprise/common/dml/tools/objprobe/standard_input.h"
#include "tests/enterprise/common/por/make_unit.h"

namespace ObjProbe {
namespace {

constexpr char kText[] =
    "<object id=\"3F2504E0-4F89-11D3-9A0C-0305E82C3301\">\n"
    "  Root (j) = 5\n"
    "    [PrimaryKey (Common::Guid) = 3F2504E0-4F89-11D3-9A0C-0305E82C3301]\n"
    "</object>\n\n";

Por::SharedUnit MakeObject() {
  return Por::Test::With(Por::Test::DWord(5), "PrimaryKey",
                         Por::Test::Guid({0xE0, 0x04, 0x25, 0x3F, 0x89, 0x4F, 0xD3, 0x11, 0x9A,
                                          0x0C, 0x03, 0x05, 0xE8, 0x2C, 0x33, 0x01}));
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

// Each read runs one step on a thread of its own. Behind the last step a read waits for its cancel.
class SteppedSubscription final : public Dml::Subscription {
 public:
  using Step = std::function<Common::Error(Dml::SubscriptionReader& reader)>;

  ~SteppedSubscription() override {
    for (std::thread& thread : threads_) thread.join();
  }

  std::shared_ptr<Async::Job> Read(Dml::SubscriptionReader& reader,
                                   Async::ActionHandler& handler) override {
    if (reads_ < steps.size()) {
      threads_.emplace_back([step = steps[reads_++], &reader, &handler] {
        const Common::Error result = step(reader);
        handler.Completed(result);
      });
      return nullptr;
    }
    auto job = std::make_shared<WaitingRead>(handler);
    on_wait();
    return job;
  }

  std::vector<Step> steps;
  std::function<void()> on_wait = [] {};

 private:
  class WaitingRead final : public Async::BaseJob {
   public:
    explicit WaitingRead(Async::ActionHandler& handler) : handler_(handler) {}
    void Cancel() override { handler_.Completed(Async::canceled_error.Get()); }

   private:
    Async::ActionHandler& handler_;
  };

  std::size_t reads_ = 0;
  std::vector<std::thread> threads_;
};

// A listen on these objects and steps, with the process's async service and without one.
class Listening : public ::testing::TestWithParam<bool> {
 protected:
  Listening() {
    office_.work = [this](std::shared_ptr<Dml::ReportReader> reader,
                          Async::ActionHandler& handler) {
      Dml::ReadObjects(objects_, *reader);
      *office_.asked_subscription = std::move(subscription_);
      handler.Completed(subscribe_result_);
      return nullptr;
    };
    if (!GetParam()) former_ = Async::SetServiceProvider(nullptr);
  }
  ~Listening() override {
    if (!GetParam()) Async::SetServiceProvider(former_);
  }

  // What was printed, with the times cut out.
  std::string PrintEvents() {
    ::testing::internal::CaptureStdout();
    try {
      Listen(office_, Dml::ViewSpec());
    } catch (const Common::Error& error) {
      failure_ = error;
    }
    StandardOutput().Flush();
    const std::string text = ::testing::internal::GetCapturedStdout();
    const std::regex time(" time=\"[0-9][^\"\n]*[0-9]:[0-9]{2}:[0-9]{2}[^\"\n]*\"");
    return std::regex_replace(text, time, " time");
  }

  Dml::ScriptedPostOffice office_;
  std::vector<Por::SharedUnit> objects_;
  Common::Error subscribe_result_;
  std::unique_ptr<SteppedSubscription> subscription_ = std::make_unique<SteppedSubscription>();
  StandardInput input_;
  Common::Error failure_;

 private:
  Async::ServiceProvider former_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Service, Listening, ::testing::Bool());

Common::Error FailedWith(std::uint32_t code) {
  return Common::Error(code, Common::LineTag{});
}

TEST_P(Listening, PrintsTheSnapshotAndWhatFollowsUntilACharacterComes) {
  const Por::SharedUnit object = MakeObject(), without_key = Dml::MakeUnit(7);
  objects_ = {object, without_key};  // nothing is printed for the second one
  subscription_->steps = {[&](Dml::SubscriptionReader& reader) {
                            reader.OnUpdated(*without_key, *object);
                            return Common::Error();
                          },
                          [&](Dml::SubscriptionReader& reader) {
                            reader.OnDeleted(*without_key);
                            return Common::Error();
                          }};
  subscription_->on_wait = [this] { input_.Type(); };
  // The seven's identification is by md5sum of its stream, 55 06 07 00 00 00 45.
  EXPECT_EQ(PrintEvents(),
            "<created id=\"3F2504E0-4F89-11D3-9A0C-0305E82C3301\" time>\n"
            "  Root (j) = 5\n"
            "    [PrimaryKey (Common::Guid) = 3F2504E0-4F89-11D3-9A0C-0305E82C3301]\n"
            "</created>\n\n"
            "<updated id=\"D2605A61-EE5E-FEC7-5206-131CEAE88ED4\" time>\n"
            "  <key>\n"
            "    Root (j) = 7\n"
            "  </key>\n"
            "  <diff>\n"
            "    Root (j) = 5\n"
            "      [PrimaryKey (Common::Guid) = 3F2504E0-4F89-11D3-9A0C-0305E82C3301]\n"
            "  </diff>\n"
            "</updated>\n\n"
            "<deleted id=\"D2605A61-EE5E-FEC7-5206-131CEAE88ED4\" time>\n"
            "  Root (j) = 7\n"
            "</deleted>\n\n");
  EXPECT_FALSE(failure_.IsFailure());
}

TEST_P(Listening, EndsWithItsInput) {
  objects_ = {MakeObject()};
  input_.End();  // before it began
  EXPECT_TRUE(PrintEvents().starts_with("<created "));
  EXPECT_FALSE(failure_.IsFailure());

  subscription_ = std::make_unique<SteppedSubscription>();
  objects_.clear();
  StandardInput input;
  std::thread ender;
  subscription_->on_wait = [&] { ender = std::thread([&] { input.End(); }); };
  EXPECT_EQ(PrintEvents(), "");
  ender.join();
  EXPECT_FALSE(failure_.IsFailure());
}

TEST_P(Listening, WaitsForItsInputAlsoWhenTheSubscriptionHasFailed) {
  std::thread typist;
  subscription_->steps = {[&](Dml::SubscriptionReader&) {
    typist = std::thread([this] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      input_.Type();
    });
    return FailedWith(0x1234);
  }};
  EXPECT_EQ(PrintEvents(), "");
  typist.join();
  EXPECT_EQ(input_.CountUnread(), 0);
  EXPECT_EQ(failure_.GetCode(), 7u);
  EXPECT_EQ(failure_.GetMessage(), u"Subscription has ended with error.");
  EXPECT_STREQ(failure_.GetLineTag().function, "Listen");
  EXPECT_TRUE(failure_.GetNextError().HoldsCode(0x1234));
}

TEST_P(Listening, ACancelUnderOtherErrorsIsAnOrderlyEnd) {
  subscription_->steps = {[&](Dml::SubscriptionReader&) {
    Common::Error error = FailedWith(0x1234);
    error.SetReason(Async::canceled_error.Get());
    return error;
  }};
  input_.End();
  EXPECT_EQ(PrintEvents(), "");
  EXPECT_FALSE(failure_.IsFailure());
}

TEST_P(Listening, AFailedSubscribeIsToldWithoutAWait) {
  subscribe_result_ = FailedWith(0x1234);
  input_.Type();
  EXPECT_EQ(PrintEvents(), "");
  EXPECT_EQ(input_.CountUnread(), 1);
  EXPECT_EQ(failure_.GetCode(), 6u);
  EXPECT_EQ(failure_.GetMessage(), u"SubscribeWithoutReport has failed.");
  EXPECT_TRUE(failure_.GetNextError().HoldsCode(0x1234));
}

}  // namespace
}  // namespace ObjProbe
