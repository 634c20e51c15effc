#include "enterprise/common/dml/client/remote_subscription.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "core/common/unix/event.h"
#include "enterprise/common/async/async_error.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/scripted_service.h"

namespace Dml::Client {
namespace {

using namespace Testing;
using TestSupport::AcquireUpdatesResults;
using TestSupport::ScriptedService;
using TestSupport::ServiceCallPtr;

class Subscriptions : public testing::Test {
 protected:
  Subscriptions() {
    service_.Answer("CloseView", {}, Failure(0x41));  // nobody cares
    service_.Answer("RemoveInterest", {}, Failure(0x41));
  }

  ScriptedService service_;
  std::shared_ptr<Binding::AccessPoint> access_point_ = service_.Connect();
  NotingChanges reader_;
  TellingHandler handler_;
};

class StandaloneReads : public Subscriptions {
 protected:
  std::unique_ptr<StandaloneRemoteSubscription> view_ =
      std::make_unique<StandaloneRemoteSubscription>(access_point_, 9);
};

TEST_F(StandaloneReads, CloseTheViewWhenTheyFailAndAgainAtItsEnd) {
  service_.Answer("AcquireUpdates", {}, Failure(0x42));
  handler_.then = [&] { EXPECT_EQ(service_.Count("CloseView"), 1); };
  std::shared_ptr<Async::Job> job = view_->Read(reader_, handler_);
  EXPECT_EQ(handler_.Await().GetCode(), 0x42u);
  job.reset();
  view_.reset();
  EXPECT_EQ(service_.GetLog(), "AcquireUpdates CloseView CloseView ");
}

// As a job control does: the last pointer goes while the handler is told.
TEST_F(StandaloneReads, MayBeDroppedByTheirHandler) {
  std::shared_ptr<Async::Job> job;
  handler_.then = [&] {
    job.reset();
    view_.reset();
  };
  job = view_->Read(reader_, handler_);
  service_.Next("AcquireUpdates")->Fail(Failure(0x43));
  EXPECT_EQ(handler_.Await().GetCode(), 0x43u);
  EXPECT_EQ(service_.Count("CloseView"), 2);
}

// The cancel finds that another thread is about to tell, and doesn't wait for it.
TEST_F(StandaloneReads, LackMemoryForTheirPointerWhileTheReaderRuns) {
  std::optional<TestSupport::AllocationWatch> watch;
  Common::Event reading(true, false);
  Common::Event go_on(true, false);
  reader_.in_read = [&](const Por::View::Unit&) {
    reading.Set();
    go_on.Wait();
  };
  service_.On("AcquireUpdates", [&](const ServiceCallPtr& call) {
    service_.Post([call] { call->Reply(AcquireUpdatesResults({Created(1)})); });
    reading.Wait();
    watch.emplace(0, 8);
  });
  const std::shared_ptr<Async::Job> job = view_->Read(reader_, handler_);
  EXPECT_EQ(watch->GetFailureCount(), 8u);
  watch.reset();
  EXPECT_EQ(handler_.Count(), 0);
  go_on.Set();
  EXPECT_FALSE(handler_.Await().IsFailure());
  EXPECT_EQ(reader_.Take(), "+1");
}

class ChannelReads : public Subscriptions {
 protected:
  const std::shared_ptr<InMemoryUpdateCache> cache_ = std::make_shared<InMemoryUpdateCache>();
  std::unique_ptr<RemoteChannel> channel_ =
      std::make_unique<RemoteChannel>(access_point_, ViewManagement::TopicID{5, 8}, cache_);
};

TEST_F(ChannelReads, RemoveTheInterestWhenTheyFail) {
  // A second read while one waits, a cancel, the read behind it, and the end.
  const std::shared_ptr<Async::Job> job = channel_->Read(reader_, handler_);
  TellingHandler second;
  EXPECT_EQ(channel_->Read(reader_, second).get(), nullptr);
  EXPECT_EQ(second.Await().GetCode(), 0xFC000Cu);
  EXPECT_EQ(service_.Count("RemoveInterest"), 1);
  EXPECT_EQ(handler_.Count(), 0);
  job->Cancel();
  EXPECT_EQ(handler_.Await().GetCode(), Async::kCanceledCode);
  EXPECT_EQ(service_.Count("RemoveInterest"), 2);
  TellingHandler third;
  channel_->Read(reader_, third);
  EXPECT_EQ(third.Await().GetCode(), 0xFC000Cu);
  EXPECT_EQ(service_.Count("RemoveInterest"), 3);
  channel_.reset();
  EXPECT_EQ(service_.Count("RemoveInterest"), 4);
}

TEST_F(ChannelReads, MayBeDroppedByTheirHandler) {
  std::shared_ptr<Async::Job> job;
  handler_.then = [&] {
    job.reset();
    channel_.reset();
  };
  job = channel_->Read(reader_, handler_);
  cache_->Fail(Failure(0x45));
  EXPECT_EQ(handler_.Await().GetCode(), 0x45u);
  EXPECT_EQ(service_.Count("RemoveInterest"), 2);
}

}  // namespace
}  // namespace Dml::Client
