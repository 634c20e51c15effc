#include "enterprise/common/dml/client/async_request.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/synchronizer.h"
#include "enterprise/common/dml_view_common/view_manager_requests.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/support/scripted_service.h"
#include "tests/support/trace_recorder.h"

namespace Dml {
namespace {

using namespace Client::Testing;
using TestSupport::ScriptedService;
using TestSupport::ServiceCallPtr;

class Requests : public testing::Test {
 protected:
  std::shared_ptr<AsyncRequest> Make() {
    return std::make_shared<AsyncRequest>(service_.Connect(),
                                          ViewManagement::CreateCloseViewRequest(7), handler_);
  }

  ScriptedService service_;
  TellingHandler handler_;
};

TEST_F(Requests, TellTheEndOfTheCall) {
  struct Case {
    std::function<void(const ServiceCallPtr&)> script;
    std::uint32_t code;
  };
  const Case cases[] = {
      {[](const ServiceCallPtr& call) { call->Reply(); }, 0},
      {[](const ServiceCallPtr& call) { call->Reply({}, Failure(0x51)); }, 0x51},
      {[](const ServiceCallPtr& call) { call->Fail(Failure(0x52)); }, 0x52},
      // No reply of this method: the end is that of reading it.
      {[](const ServiceCallPtr& call) {
         call->ReplyElements("<reply_ViewManager_Subscribe></reply_ViewManager_Subscribe>");
       },
       0x9C0002},
  };
  for (const Case& expected : cases) {
    service_.On("CloseView", [&](const ServiceCallPtr& call) {
      service_.Post([call, script = expected.script] { script(call); });
    });
    TellingHandler handler;
    AsyncRequest request(service_.Connect(), ViewManagement::CreateCloseViewRequest(7), handler);
    request.Start();
    EXPECT_EQ(handler.Await().GetCode(), expected.code);
    EXPECT_EQ(handler.Count(), 1);
  }
}

TEST_F(Requests, TellOnTheThreadOfStartWhatKeepsThemFromStarting) {
  const auto start = [&](std::unique_ptr<Binding::Request> request) {
    TellingHandler handler;
    AsyncRequest made(service_.Connect(), std::move(request), handler);
    EXPECT_EQ(handler.Count(), 0);
    made.Start();
    EXPECT_EQ(handler.Count(), 1);
    EXPECT_EQ(handler.thread, std::this_thread::get_id());
    made.Cancel();  // has nobody to tell any more
    EXPECT_EQ(handler.Count(), 1);
    return handler.Await().GetCode();
  };
  TestSupport::TraceRecorder traces;
  EXPECT_EQ(start(nullptr), 0xAD01FEu);
  service_.create_error = Failure(0x61);
  EXPECT_EQ(start(ViewManagement::CreateCloseViewRequest(7)), 0x61u);
  service_.create_error = {};
  service_.creates_nothing = true;
  EXPECT_EQ(start(ViewManagement::CreateCloseViewRequest(7)), 0xFC0017u);
  // Each Cancel without a job, and the start without one.
  EXPECT_EQ(traces.Assertions(), std::vector<std::string>(4, "Job.get()"));
  service_.creates_nothing = false;
  service_.start_error = Failure(0x62);
  EXPECT_EQ(start(ViewManagement::CreateCloseViewRequest(7)), 0x62u);
}

TEST_F(Requests, ACancelTellsTheCancelErrorOnceTheCallHasEnded) {
  for (const auto canceling :
       {ScriptedService::Canceling::kOnThread, ScriptedService::Canceling::kInside}) {
    service_.canceling = canceling;
    TellingHandler handler;
    AsyncRequest request(service_.Connect(), ViewManagement::CreateCloseViewRequest(7), handler);
    request.Start();
    const ServiceCallPtr call = service_.Next("CloseView");
    request.Cancel();
    EXPECT_TRUE(call->HasEnded());
    EXPECT_EQ(handler.Await().GetCode(), Async::kCanceledCode);
    EXPECT_EQ(handler.thread, std::this_thread::get_id());
    request.Cancel();
    EXPECT_FALSE(call->Reply());
    EXPECT_EQ(handler.Count(), 1);
  }
}

TEST_F(Requests, ACancelThatComesSecondWaitsForTheCallToo) {
  service_.canceling = ScriptedService::Canceling::kNever;
  const auto request = Make();
  request->Start();
  const ServiceCallPtr call = service_.Next("CloseView");
  std::thread first([&] { request->Cancel(); });
  while (!call->IsCanceled()) std::this_thread::yield();
  std::thread second([&] {
    request->Cancel();
    EXPECT_TRUE(call->HasEnded());
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // for it to come too early
  EXPECT_TRUE(call->Reply());
  first.join();
  second.join();
  EXPECT_EQ(handler_.Count(), 1);
  EXPECT_EQ(handler_.Await().GetCode(), Async::kCanceledCode);  // whatever the service said
}

// The handler is told behind the signal: neither waits for the other.
TEST_F(Requests, MayBeCancelledAndDroppedByTheirHandler) {
  auto request = Make();
  handler_.then = [&] {
    request->Cancel();
    request.reset();
  };
  request->Start();
  service_.Post([call = service_.Next("CloseView")] { call->Reply(); });
  EXPECT_FALSE(handler_.Await().IsFailure());
  EXPECT_EQ(request, nullptr);
}

TEST_F(Requests, TheirEndWaitsForTheCall) {
  service_.canceling = ScriptedService::Canceling::kNever;
  auto request = Make();
  request->Start();
  const ServiceCallPtr call = service_.Next("CloseView");
  std::atomic<bool> answers{false};
  service_.Post([&answers, call] {
    answers = true;
    call->Reply();
  });
  request.reset();
  EXPECT_TRUE(answers);
  EXPECT_TRUE(call->HasEnded());
  // Told behind that, while this test still has its handler.
  EXPECT_FALSE(handler_.Await().IsFailure());
}

TEST_F(Requests, WhatAHandlerRaisesIsTracedAndDropped) {
  TestSupport::TraceRecorder traces;
  handler_.then = [] { throw Failure(0x71); };
  const auto request = Make();
  request->Start();
  EXPECT_TRUE(service_.Next("CloseView")->Reply());
  EXPECT_EQ(handler_.Count(), 1);
  EXPECT_EQ(traces.Codes(), "1 fc 1\n");
}

TEST_F(Requests, ReplyAndCancelAtOneMomentTellOnce) {
  constexpr int kRounds = 400;
  int canceled = 0;
  for (int round = 0; round < kRounds; ++round) {
    TellingHandler handler;
    // The last reference goes in the handler, as that of a job control does.
    auto request = std::make_shared<AsyncRequest>(
        service_.Connect(), ViewManagement::CreateCloseViewRequest(7), handler);
    auto held = request;
    handler.then = [&] { held.reset(); };
    request->Start();
    const ServiceCallPtr call = service_.Next("CloseView");
    service_.Post([call] { call->Reply(); });
    std::thread canceller([&] {
      if (round % 2 == 0) std::this_thread::yield();
      request->Cancel();
    });
    canceled += handler.Await().HoldsCode(Async::kCanceledCode);
    canceller.join();
    EXPECT_TRUE(call->HasEnded());
    EXPECT_EQ(handler.Count(), 1);
  }
  RecordProperty("canceled", canceled);
}

class Runner final : public SmartRequestRunner {
 public:
  Runner(std::shared_ptr<Binding::AccessPoint> access_point, Async::ActionHandler& handler)
      : SmartRequestRunner(std::move(access_point), handler) {}
  void Succeeded() override { succeeded(); }
  std::unique_ptr<Binding::Request> CreateRequest() override {
    return ViewManagement::CreateCloseViewRequest(7);
  }
  std::function<void()> succeeded = [] {};
};

class Runners : public Requests {
 protected:
  const std::shared_ptr<Runner> runner_ = std::make_shared<Runner>(service_.Connect(), handler_);
};

TEST_F(Runners, TellTheirHandlerBehindSucceeded) {
  const struct {
    std::uint32_t answer;
    std::function<void()> succeeded;
    std::uint32_t told;
  } cases[] = {
      {0, [] {}, 0},
      {0, [] { throw Failure(0x72); }, 0},  // traced
      {0, [] { throw std::bad_alloc(); }, Common::kOutOfMemoryCode},
      {0, [] { throw std::runtime_error("odd"); }, 0xF90007},
      {0, [] { throw 5; }, 0xF90008},
      {0x73, [] { FAIL(); }, 0x73},
  };
  TestSupport::TraceRecorder traces;
  int told = 0;
  for (const auto& expected : cases) {
    service_.Answer("CloseView", {}, Common::Error(expected.answer, Common::LineTag{}));
    runner_->succeeded = [&] {
      EXPECT_EQ(handler_.Count(), told);
      expected.succeeded();
    };
    runner_->Run();
    EXPECT_EQ(handler_.Await().GetCode(), expected.told);
    EXPECT_EQ(handler_.Count(), ++told);
  }
  EXPECT_EQ(traces.Codes(), "1 fc 1\n");
}

TEST_F(Runners, TakeACancelBeforeTheyRunForNone) {
  service_.Answer("CloseView");
  runner_->Cancel();
  runner_->Run();
  EXPECT_FALSE(handler_.Await().IsFailure());
  runner_->Cancel();
  EXPECT_EQ(handler_.Count(), 1);
}

}  // namespace
}  // namespace Dml
