#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/unix/event.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/synchronization_callback.h"
#include "enterprise/common/dml/client/remote_subscription_dispatcher.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/scripted_service.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

namespace Dml::Client {
namespace {

using namespace Testing;
using TestSupport::ReadSubscriptionResults;
using TestSupport::ScriptedService;
using TestSupport::ServiceCallPtr;
using TestSupport::SubscribeResults;

// Each part of the text is one delivery. Reads again from its own handler.
class Following final : public Async::ActionHandler {
 public:
  explicit Following(std::unique_ptr<Subscription> subscription)
      : subscription_(std::move(subscription)) {
    Read();
  }

  void Completed(Common::Error result) override {
    const std::string read = reader_.Take();
    if (result.IsFailure()) {
      failure = result;
      return;
    }
    if (!log.empty()) log.append(" ");
    log.append(read);
    Read();
  }

  std::string log;
  Common::Error failure;

 private:
  void Read() { jobs_.push_back(subscription_->Read(reader_, *this)); }

  NotingChanges reader_;
  std::vector<std::shared_ptr<Async::Job>> jobs_;
  const std::unique_ptr<Subscription> subscription_;
};

class Dispatcher : public testing::Test {
 protected:
  Dispatcher() {
    service_.Answer("RemoveInterest");
    service_.Answer("Unsubscribe");
  }

  // What the first read of a channel brings: the records, then the code of its end, if any.
  std::string ReadOnce(std::uint32_t channel) {
    NotingChanges reader;
    TellingHandler handler;
    const std::unique_ptr<RemoteChannel> subscription = dispatcher_->CreateChannel(channel);
    const std::shared_ptr<Async::Job> job = subscription->Read(reader, handler);
    if (job != nullptr) {
      job->Cancel();
      return "waits";
    }
    const Common::Error told = handler.Await();
    return told.IsFailure() ? TestSupport::Utf8(told.GetMessage()) + std::to_string(told.GetCode())
                            : reader.Take();
  }
  void Start() {
    service_.Answer("Subscribe", SubscribeResults(5));
    EXPECT_FALSE(dispatcher_->EnsureTransmission().IsFailure());
  }

  ScriptedService service_;
  std::shared_ptr<RemoteSubscriptionDispatcher> dispatcher_ =
      std::make_shared<RemoteSubscriptionDispatcher>(service_.Connect());
};

// Does something when this thread is about to wait for work.
class WhenWaiting final : public Async::ScopedSynchronizationCallback {
 public:
  explicit WhenWaiting(std::function<void()> then) : then_(std::move(then)) {}
  bool Invoke(Async::Job*) override {
    then_();
    return true;
  }

 private:
  const std::function<void()> then_;
};

TEST_F(Dispatcher, DeliversRunsOfAChannelInOrder) {
  Following one(dispatcher_->CreateChannel(1));
  Following two(dispatcher_->CreateChannel(2));
  const Por::SharedUnit diff = Number(8);
  ViewUpdate update = Created(1, 14);
  update.type = ViewManagement::kUpdateUpdated;
  update.packed_update = diff;
  ViewUpdate deletion = Created(2, 22);
  deletion.type = ViewManagement::kUpdateDeleted;
  dispatcher_->Consume(
      {Created(1, 11), Created(1, 12), Created(2, 21), Created(1, 13), update, deletion});
  EXPECT_EQ(one.log, "+11+12 +13*14,8");
  EXPECT_EQ(two.log, "+21 -22");
  dispatcher_->Consume({});
  EXPECT_EQ(one.log, "+11+12 +13*14,8");
}

TEST_F(Dispatcher, FollowsTheMarksOfRecords) {
  const auto error = [](std::uint32_t channel, Por::OwnedUnit value) {
    return Mark(channel, "ChannelError", std::move(value));
  };
  const auto failed = [&](std::uint32_t channel) {
    return error(channel, Por::GetStaticUnitFactory()->CreateError(Failure(0x77)));
  };
  const auto both = [](const char* first, const char* second) {
    return Mark(1, first, Marked(Number(0), second, Number(0)));
  };
  struct Case {
    std::vector<ViewUpdate> records;
    const char* first;   // what the first read of channel 1 brings
    const char* second;  // that of channel 2
  };
  const Case cases[] = {
      {{Mark(1, "ChannelCreation")}, "waits", "waits"},
      {{Created(1, 11), Mark(1, "ChannelCreation"), Created(1, 12)}, "+11+12", "waits"},
      {{Created(1, 11), Mark(2, "ChannelCreation")}, "+11", "waits"},
      {{Created(1, 11), Created(1, 12), Mark(1, "ChannelRemoval")}, "waits", "waits"},
      {{Created(1, 11), Mark(2, "ChannelRemoval"), Created(1, 12)}, "+11+12", "waits"},
      {{Created(1, 11), Mark(1, "ChannelRemoval"), Created(1, 12)}, "+12", "waits"},
      {{Created(1, 11), Created(2, 21), Mark(1, "ChannelRemoval")}, "waits", "+21"},
      {{Created(1, 11), Created(2, 21), Mark(1, "ChannelRemoval"), Created(1, 12)}, "+12", "+21"},
      {{Created(1, 11), failed(1)}, "119", "waits"},
      {{Created(1, 11), failed(2)}, "+11", "119"},
      {{failed(1), failed(2)}, "119", "119"},
      {{failed(1), Created(2, 21), Created(1, 11)}, "+11", "+21"},
      // A value of another kind reads as success.
      {{failed(1), error(1, Number(5))}, "waits", "waits"},
      // The first of several marks counts, in this order: creation, removal, error.
      {{Created(1, 11), both("ChannelCreation", "ChannelRemoval")}, "+11", "waits"},
      {{Created(1, 11), both("ChannelError", "ChannelRemoval")}, "waits", "waits"},
  };
  int number = 0;
  for (const Case& expected : cases) {
    SCOPED_TRACE(number++);
    dispatcher_ = std::make_shared<RemoteSubscriptionDispatcher>(service_.Connect());
    dispatcher_->Consume(expected.records);
    EXPECT_EQ(ReadOnce(1), expected.first);
    EXPECT_EQ(ReadOnce(2), expected.second);
  }
}

TEST_F(Dispatcher, TakesWhatNamesNoChannelForChannel0) {
  const auto wide = [](Por::OwnedUnit number) {
    return Created(Por::SharedUnit(Marked(Number(2), "ChannelID", std::move(number))));
  };
  TestSupport::TraceRecorder traces;
  dispatcher_->Consume({Created(1),
                        wide(Por::GetStaticUnitFactory()->CreateQWord(1)),
                        {ViewManagement::kUpdateDeleted, nullptr, Number(9)},
                        Created(Por::SharedUnit(InChannel(3, InChannel(4, Number(4))))),
                        Created(1, 11),
                        {ViewManagement::kUpdateCreated, nullptr, nullptr},
                        Created(1, 12)});
  EXPECT_EQ(ReadOnce(0), "+1+2+4");
  EXPECT_EQ(ReadOnce(1), "+11+12");
  EXPECT_EQ(traces.Codes(), "1 fc 1\n1 fc 1\n");
}

TEST_F(Dispatcher, HidesTheChannelAloneAndKeepsTheUnit) {
  Por::SharedUnit received = InChannel(1, Marked(Number(11), "Is", Number(1)));
  const std::weak_ptr<const Por::View::Unit> watched = received;
  dispatcher_->Consume({Created(received)});
  EXPECT_TRUE(Por::Util::HasTrait(*received, "ChannelID"));
  received.reset();
  EXPECT_FALSE(watched.expired());
  NotingChanges reader;
  TellingHandler handler;
  int seen = 0;
  reader.in_read = [&](const Por::View::Unit& unit) {
    EXPECT_FALSE(Por::Util::HasTrait(unit, "ChannelID"));
    EXPECT_TRUE(Por::Util::HasTrait(unit, "Is"));
    ++seen;
  };
  dispatcher_->CreateChannel(1)->Read(reader, handler);
  EXPECT_EQ(seen, 1);
  EXPECT_TRUE(watched.expired());
}

// It waits on, for the channel's next life is that of another subscription.
TEST_F(Dispatcher, ARemovedChannelIsNoMoreThatOfItsReader) {
  NotingChanges reader;
  TellingHandler handler;
  const auto removed = dispatcher_->CreateChannel(1);
  const auto job = removed->Read(reader, handler);
  dispatcher_->Consume({Mark(1, "ChannelRemoval"), Created(1, 11)});
  EXPECT_EQ(ReadOnce(1), "+11");
  EXPECT_EQ(handler.Count(), 0);
  job->Cancel();
}

TEST_F(Dispatcher, WhatCameBeforeASubscriptionGoesWithIt) {
  dispatcher_->Consume({Created(1, 11)});
  dispatcher_->CreateChannel(1).reset();
  dispatcher_->Consume({Created(1, 12)});
  EXPECT_EQ(ReadOnce(1), "+12");
  EXPECT_EQ(ReadOnce(1), "waits");
}

TEST_F(Dispatcher, SubscribesOnceAndAgainOnlyBehindAFailureToDoSo) {
  EXPECT_EQ(dispatcher_->GetTransmission(), 0u);
  service_.Answer("Subscribe", {}, Failure(0x31));
  EXPECT_EQ(dispatcher_->EnsureTransmission().GetCode(), 0x31u);
  // A reply without a transmission.
  service_.Answer("Subscribe", SubscribeResults(0));
  EXPECT_EQ(dispatcher_->EnsureTransmission().GetCode(), 0x9C0002u);
  service_.Answer("Subscribe");
  EXPECT_EQ(dispatcher_->EnsureTransmission().GetCode(), 0x9C0002u);
  EXPECT_EQ(dispatcher_->GetTransmission(), 0u);
  EXPECT_EQ(service_.GetLog(), "Subscribe Subscribe Subscribe ");
  Start();
  Start();
  EXPECT_EQ(dispatcher_->GetTransmission(), 5u);
  EXPECT_NE(service_.Next("ReadSubscription")->GetAsked().find("<subscriber>5</subscriber>"),
            std::string::npos);
  dispatcher_.reset();
  EXPECT_EQ(service_.GetLog(),
            "Subscribe Subscribe Subscribe Subscribe ReadSubscription Unsubscribe ");
}

// Wherever memory runs out before the transport has the pull, somebody is told.
TEST_F(Dispatcher, AnOutOfMemoryAtItsStartIsToldToTheCallerOrTheChannels) {
  int to_caller = 0;
  int to_channels = 0;
  for (const bool is_subscribed : {false, true}) {
    std::optional<TestSupport::AllocationWatch> watch;
    bool is_reached = false;
    for (unsigned int successes = 0; !is_reached; ++successes) {
      SCOPED_TRACE(successes);
      dispatcher_ = std::make_shared<RemoteSubscriptionDispatcher>(service_.Connect());
      service_.On("Subscribe", [&](const ServiceCallPtr& call) {
        call->Reply(SubscribeResults(5));
        if (is_subscribed) watch.emplace(successes, 1);
      });
      service_.in_create = [&] {
        if (watch) is_reached = !watch->HasFailed();
        watch.reset();
      };
      if (!is_subscribed) watch.emplace(successes, 1);
      const Common::Error error = dispatcher_->EnsureTransmission();
      watch.reset();
      service_.in_create = nullptr;
      if (is_reached) break;
      if (is_subscribed) {
        EXPECT_FALSE(error.IsFailure());
        EXPECT_EQ(dispatcher_->EnsureTransmission().GetCode(), Common::kOutOfMemoryCode);
        EXPECT_TRUE(ReadOnce(1).ends_with(std::to_string(Common::kOutOfMemoryCode)));
        ++to_channels;
      } else {
        EXPECT_EQ(error.GetCode(), Common::kOutOfMemoryCode);
        EXPECT_EQ(dispatcher_->GetTransmission(), 0u);
        EXPECT_EQ(service_.Count("Subscribe"), 0);
        ++to_caller;
      }
    }
  }
  // Pull and loop; then the loop's job, that of the pull, its request.
  EXPECT_GE(to_caller, 2);
  EXPECT_GE(to_channels, 3);
}

// As long as the service has something at once, the pulls stay on one stack.
TEST_F(Dispatcher, PullsFromABusyServiceInALoop) {
  constexpr unsigned int kPulls = 4000;
  unsigned int pulls = 0;
  std::uintptr_t deepest = ~std::uintptr_t{0};
  Following one(dispatcher_->CreateChannel(1));
  ServiceCallPtr last;
  service_.On("ReadSubscription", [&](const ServiceCallPtr& pull) {
    deepest = std::min(deepest, reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)));
    if (++pulls == kPulls) {
      last = pull;
    } else {
      pull->Reply(pulls % 1000 == 1 ? ReadSubscriptionResults({Created(1, pulls / 1000 + 1)}) : "");
    }
  });
  Start();
  EXPECT_EQ(pulls, kPulls);
  EXPECT_EQ(one.log, "+1 +2 +3 +4");
  EXPECT_LT(reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)) - deepest, 100000u);
  dispatcher_->End();
}

// Also the first one, which starts outside the lock.
TEST_F(Dispatcher, AFailedPullEndsTheTransmissionForGood) {
  service_.On("ReadSubscription", [&](const ServiceCallPtr& pull) {
    std::thread([&] { EXPECT_EQ(dispatcher_->GetTransmission(), 5u); }).join();
    pull->Fail(Failure(0x32));
  });
  const auto holding = dispatcher_->CreateChannel(2);
  dispatcher_->Consume({Created(2, 21)});
  Start();
  NotingChanges reader;
  TellingHandler buffered;
  holding->Read(reader, buffered);
  EXPECT_EQ(reader.Take(), "+21");
  EXPECT_FALSE(buffered.Await().IsFailure());
  TellingHandler ended;
  holding->Read(reader, ended);
  EXPECT_EQ(ended.Await().GetCode(), 0x32u);
  EXPECT_EQ(dispatcher_->EnsureTransmission().GetCode(), 0x32u);
  EXPECT_EQ(ReadOnce(3), std::to_string(0x32));
  EXPECT_EQ(ReadOnce(2), std::to_string(0x32));  // was known before
  dispatcher_.reset();
  for (const char* const method : {"Subscribe", "ReadSubscription", "Unsubscribe"}) {
    EXPECT_EQ(service_.Count(method), 1) << method;
  }
}

// A record for which there is no memory is lost: what comes behind it would be of no use.
TEST_F(Dispatcher, ABatchThatCannotBeSortedEndsTheTransmission) {
  Start();
  std::optional<TestSupport::AllocationWatch> watch;
  NotingChanges reader;
  NotingChanges lost_reader;
  TellingHandler handler;
  TellingHandler lost_handler;
  reader.in_read = [&](const Por::View::Unit&) { watch.emplace(0, 1); };
  const auto channel = dispatcher_->CreateChannel(1);
  const auto lost = dispatcher_->CreateChannel(2);
  const auto job = channel->Read(reader, handler);
  const auto lost_job = lost->Read(lost_reader, lost_handler);
  const std::string results =
      ReadSubscriptionResults({Created(1, 11), Created(2, 21), Created(2, 22)});
  service_.Next("ReadSubscription")->Reply(results);
  watch.reset();
  EXPECT_EQ(reader.Take(), "+11");
  EXPECT_FALSE(handler.Await().IsFailure());
  EXPECT_EQ(lost_reader.Take(), "");
  EXPECT_EQ(lost_handler.Await().GetCode(), Common::kOutOfMemoryCode);
  EXPECT_EQ(dispatcher_->EnsureTransmission().GetCode(), Common::kOutOfMemoryCode);
  EXPECT_EQ(service_.Count("ReadSubscription"), 1);
}

TEST_F(Dispatcher, ItsEndCancelsThePullAndTellsWhoeverWaitsBeforeItUnsubscribes) {
  Start();
  service_.Next("ReadSubscription");
  NotingChanges reader;
  TellingHandler handler;
  const auto channel = dispatcher_->CreateChannel(1);
  handler.then = [&] { EXPECT_EQ(service_.Count("Unsubscribe"), 0); };
  const auto job = channel->Read(reader, handler);
  const std::shared_ptr<RemoteSubscriptionDispatcher> further = dispatcher_;
  dispatcher_->End();
  EXPECT_EQ(handler.Count(), 1);
  EXPECT_TRUE(handler.Await().HoldsCode(Async::kCanceledCode));
  EXPECT_EQ(service_.GetLog(), "Subscribe ReadSubscription RemoveInterest Unsubscribe ");
  // It stays ended, and ends once.
  EXPECT_EQ(dispatcher_->EnsureTransmission().GetCode(), 0xFC000Bu);
  EXPECT_EQ(ReadOnce(2),
            "DML: The operation is not permitted because the view is being closed.16515083");
  dispatcher_->End();
  EXPECT_EQ(service_.Count("Unsubscribe"), 1);
}

// Between two pulls: here a reader holds the loop while the end begins.
TEST_F(Dispatcher, ItsEndBetweenPullsTellsThatTheViewIsBeingClosed) {
  Start();
  Common::Event reading(true, false);
  Common::Event go_on(true, false);
  NotingChanges reader;
  NotingChanges holding_reader;
  TellingHandler handler;
  TellingHandler holding_handler;
  const auto channel = dispatcher_->CreateChannel(1);
  const auto holding = dispatcher_->CreateChannel(2);
  const auto job = channel->Read(reader, handler);
  const auto holding_job = holding->Read(holding_reader, holding_handler);
  handler.then = [&] { EXPECT_EQ(service_.Count("Unsubscribe"), 0); };
  holding_reader.in_read = [&](const Por::View::Unit&) {
    reading.Set();
    go_on.Wait();
  };
  const ServiceCallPtr pull = service_.Next("ReadSubscription");
  service_.Post([=] { pull->Reply(ReadSubscriptionResults({Created(2, 21)})); });
  reading.Wait();
  // The call has ended, so the cancel finds nothing to end; then the end waits for the loop.
  {
    const WhenWaiting when_waiting([&] { go_on.Set(); });
    dispatcher_->End();
  }
  EXPECT_EQ(holding_handler.Count(), 1);
  EXPECT_FALSE(holding_handler.Await().IsFailure());
  EXPECT_EQ(handler.Await().GetCode(), 0xFC000Bu);
  EXPECT_EQ(service_.Count("ReadSubscription"), 1);
}

}  // namespace
}  // namespace Dml::Client
