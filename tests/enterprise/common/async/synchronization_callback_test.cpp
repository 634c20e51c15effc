#include "enterprise/common/async/synchronization_callback.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "enterprise/common/async/waiting_handler.h"
#include "tests/enterprise/common/async/fake_service.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async {
namespace {

using Testing::FakeJob;
using Testing::TraceRecorder;

// Writes its name, and whether it was told a job, into a log.
class LoggingCallback : public ScopedSynchronizationCallback {
 public:
  LoggingCallback(std::string& log, char name, bool hides = false)
      : log_(log), name_(name), hides_(hides) {}

  bool Invoke(Job* job) override {
    log_ += name_;
    if (job != nullptr) log_ += '+';
    return hides_;
  }

 private:
  std::string& log_;
  const char name_;
  const bool hides_;
};

class CallbackChain : public ::testing::Test {
 protected:
  std::string Notified(Job* job = nullptr) {
    log_.clear();
    NotifySynchronization(job);
    return log_;
  }

  std::string log_;
};

TEST_F(CallbackChain, RunsFromTheInnermostOutwardsBeforeAWait) {
  EXPECT_EQ(Notified(), "");
  LoggingCallback outer(log_, 'a');
  LoggingCallback inner(log_, 'b');
  FakeJob job;
  WaitingHandler handler(true);
  handler.Completed({});
  handler.Wait(&job);
  EXPECT_EQ(log_, "b+a+");
  log_.clear();
  handler.Completed({});
  handler.Wait(nullptr);
  EXPECT_EQ(log_, "ba");
}

TEST_F(CallbackChain, ATrueResultHidesTheOuterOnes) {
  LoggingCallback outer(log_, 'a');
  {
    LoggingCallback inner(log_, 'b', true);
    EXPECT_EQ(Notified(), "b");
    EXPECT_EQ(outer.CallCount, 0u);
  }
  EXPECT_EQ(Notified(), "a");
}

TEST_F(CallbackChain, ASuppressedCallbackStopsTheWalkAndCounts) {
  LoggingCallback outer(log_, 'a');
  LoggingCallback middle(log_, 'b');
  LoggingCallback inner(log_, 'c');
  middle.SuppressCount = 1;
  EXPECT_EQ(Notified(), "c");
  EXPECT_EQ(middle.CallCount, 1u);
  EXPECT_EQ(outer.CallCount, 0u);
  inner.SuppressCount = 1;
  EXPECT_EQ(Notified(), "");
  EXPECT_EQ(inner.CallCount, 2u);
}

TEST_F(CallbackChain, SuppressionIsInheritedAndItsEndDelivers) {
  LoggingCallback first(log_, 'a');
  LoggingCallback outer(log_, 'b');
  outer.SuppressCount = 2;
  EXPECT_EQ(Notified(), "");
  {
    LoggingCallback inner(log_, 'c');
    EXPECT_EQ(inner.SuppressCount, 2);
    EXPECT_EQ(Notified(), "");
    inner.SuppressCount = 1;  // goes back to the outer one, which stays suppressed
  }
  EXPECT_EQ(outer.SuppressCount, 1);
  EXPECT_EQ(log_, "");
  {
    LoggingCallback inner(log_, 'c');
    inner.SuppressCount = 0;
  }
  EXPECT_EQ(outer.SuppressCount, 0);
  EXPECT_EQ(log_, "ba");  // what was suppressed, once, and on to the outer callbacks
}

TEST_F(CallbackChain, AnEndOfSuppressionWithoutNotificationDeliversNothing) {
  LoggingCallback outer(log_, 'a');
  outer.SuppressCount = 1;
  {
    LoggingCallback inner(log_, 'b');
    inner.SuppressCount = -1;
  }
  EXPECT_EQ(outer.SuppressCount, -1);
  EXPECT_EQ(log_, "");
}

TEST_F(CallbackChain, ASecondNextIsAssertedAndStored) {
  TraceRecorder traces;
  LoggingCallback outer(log_, 'a');
  LoggingCallback inner(log_, 'b');
  inner.SetNext(&outer);
  EXPECT_EQ(traces.Assertions(), std::vector<std::string>{"Next == 0"});
  EXPECT_EQ(inner.GetNext(), &outer);
}

TEST_F(CallbackChain, LivesInTheStorageOfTheService) {
  EXPECT_EQ(GetSynchronizationCallbackStorage()->Pop(), nullptr);
  LoggingCallback without(log_, 'a');
  {
    Testing::FakeService service;
    LoggingCallback with(log_, 'b');
    EXPECT_EQ(service.GetSynchronizationCallbackStorage()->Current(), &with);
    EXPECT_EQ(Notified(), "b");
  }
  EXPECT_EQ(Notified(), "a");
}

}  // namespace
}  // namespace Async
