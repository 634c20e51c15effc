#include "enterprise/common/dml/client/remote_subscription.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "enterprise/common/async/async_error.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/support/scripted_service.h"
#include "tests/support/trace_recorder.h"

namespace Dml::Client {
namespace {

using namespace Testing;
using TestSupport::AcquireUpdatesResults;
using TestSupport::ScriptedService;
using TestSupport::ServiceCallPtr;

class Subscriptions : public testing::Test {
 protected:
  Subscriptions() {
    const auto note = [this](const ServiceCallPtr& call) {
      asked_ = call->GetAsked();
      call->Reply({}, Failure(0x41));  // nobody cares
    };
    service_.On("CloseView", note);
    service_.On("RemoveInterest", note);
  }

  ScriptedService service_;
  std::shared_ptr<Binding::AccessPoint> access_point_ = service_.Connect();
  NotingChanges reader_;
  TellingHandler handler_;
  std::string asked_;
};

class StandaloneReads : public Subscriptions {
 protected:
  std::unique_ptr<StandaloneRemoteSubscription> view_ =
      std::make_unique<StandaloneRemoteSubscription>(access_point_, 9);
};

TEST_F(StandaloneReads, AcquireUpdatesForEach) {
  const ViewUpdate deletion{ViewManagement::kUpdateDeleted, Number(2), nullptr};
  const ViewUpdate unknown{9, Number(3), nullptr};
  const ViewUpdate null{ViewManagement::kUpdateCreated, nullptr, nullptr};
  service_.Answer("AcquireUpdates", AcquireUpdatesResults({Created(1), unknown, null, deletion}));
  const std::shared_ptr<Async::Job> job = view_->Read(reader_, handler_);
  EXPECT_FALSE(handler_.Await().IsFailure());
  EXPECT_EQ(reader_.Take(), "+1-2");
  TellingHandler second;
  const auto second_job = view_->Read(reader_, second);
  EXPECT_EQ(reader_.Take(), "+1-2");
  EXPECT_EQ(service_.GetLog(), "AcquireUpdates AcquireUpdates ");
  view_.reset();
  EXPECT_EQ(asked_,
            "<request_ViewManager_CloseView><viewID>9</viewID>"
            "</request_ViewManager_CloseView>");
}

TEST_F(StandaloneReads, CloseTheViewWhenTheyFailAndAgainAtItsEnd) {
  service_.Answer("AcquireUpdates", {}, Failure(0x42));
  handler_.then = [&] { EXPECT_EQ(service_.Count("CloseView"), 1); };
  std::shared_ptr<Async::Job> job = view_->Read(reader_, handler_);
  EXPECT_EQ(handler_.Await().GetCode(), 0x42u);
  job.reset();
  view_.reset();
  EXPECT_EQ(service_.GetLog(), "AcquireUpdates CloseView CloseView ");
}

TEST_F(StandaloneReads, CloseTheViewWhenTheyAreCancelled) {
  const std::shared_ptr<Async::Job> job = view_->Read(reader_, handler_);
  const ServiceCallPtr call = service_.Next("AcquireUpdates");
  job->Cancel();
  EXPECT_EQ(handler_.Await().GetCode(), Async::kCanceledCode);
  EXPECT_EQ(service_.Count("CloseView"), 1);
  EXPECT_FALSE(call->Reply(AcquireUpdatesResults({Created(1)})));
  EXPECT_EQ(reader_.Take(), "");
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

TEST_F(StandaloneReads, EndOnADeadConnection) {
  service_.create_error = Failure(0x44);
  const std::shared_ptr<Async::Job> job = view_->Read(reader_, handler_);
  EXPECT_EQ(handler_.Await().GetCode(), 0x44u);
  EXPECT_EQ(service_.GetLog(), "");
}

class ChannelReads : public Subscriptions {
 protected:
  const std::shared_ptr<InMemoryUpdateCache> cache_ = std::make_shared<InMemoryUpdateCache>();
  std::unique_ptr<RemoteChannel> channel_ =
      std::make_unique<RemoteChannel>(access_point_, ViewManagement::TopicID{5, 8}, cache_);
};

TEST_F(ChannelReads, CheckTheCacheOut) {
  cache_->Consume({Created(1)});
  EXPECT_EQ(channel_->Read(reader_, handler_).get(), nullptr);
  EXPECT_EQ(reader_.Take(), "+1");
  TellingHandler waiting;
  const std::shared_ptr<Async::Job> job = channel_->Read(reader_, waiting);
  cache_->Consume({Created(2)});
  EXPECT_FALSE(waiting.Await().IsFailure());
  EXPECT_EQ(reader_.Take(), "+2");
  EXPECT_EQ(service_.GetLog(), "");
  channel_.reset();
  EXPECT_EQ(asked_.substr(0, asked_.find("<traits")),
            "<request_ViewManager_RemoveInterest><topic><Subscriber>5</Subscriber>"
            "<Interest>8</Interest></topic></request_ViewManager_RemoveInterest>");
}

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
