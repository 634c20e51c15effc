#include "enterprise/common/dml/client/remoting.h"

#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/common/por/thrown.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/scripted_service.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

namespace Dml::Client {
namespace {

using namespace Testing;
using Por::Test::Composite;
using Por::Test::DWord;
using Por::Test::QWord;
using Por::Test::Text;
using TestSupport::AddInterestResults;
using TestSupport::OpenViewResults;
using TestSupport::ReadSubscriptionResults;
using TestSupport::ScriptedService;
using TestSupport::ServiceCallPtr;
using TestSupport::SubscribeResults;

Core::EntryPoint MakeEntryPoint() {
  Core::EntryPoint entry_point;
  entry_point.location = 0x123456789;
  entry_point.file =
      "some/\xC3\xA4"
      "file";
  entry_point.line = 7;
  return entry_point;
}

Por::OwnedUnit MakeEntryPointUnit() {
  return Composite("ID", QWord(0x123456789), "File", Text(u"some/\u00e4file"), "Line", DWord(7));
}

class RemotePostOffices : public testing::Test {
 protected:
  RemotePostOffices() {
    service_.AnswerFarewells();
    service_.Answer("Subscribe", SubscribeResults(3));
    // Pulls wait.
  }

  std::unique_ptr<PostOffice> Make(std::uint32_t version) {
    service_.interface_version = version;
    return CreateRemoteViewProvider(service_.Connect());
  }
  // Subscribes and waits for the end of that.
  Common::Error Subscribe(PostOffice& office, std::unique_ptr<Subscription>& subscription) {
    TellingHandler handler;
    const auto job = office.Subscribe(MakeEntryPoint(), ViewSpec(), reader_, subscription, handler);
    return handler.Await();
  }

  ScriptedService service_;
  const std::shared_ptr<NotingObjects> reader_ = std::make_shared<NotingObjects>();
};

TEST_F(RemotePostOffices, KeepTheReaderWithTheWork) {
  auto office = Make(1);
  auto reader = std::make_shared<NotingObjects>();
  const std::weak_ptr<NotingObjects> watched = reader;
  TellingHandler handler;
  auto job = office->Report(MakeEntryPoint(), ViewSpec(), std::move(reader), handler);
  service_.Next("OpenStaticView")->Reply(OpenViewResults({Number(1)}));
  EXPECT_FALSE(handler.Await().IsFailure());
  ASSERT_FALSE(watched.expired());
  EXPECT_EQ(watched.lock()->read, "+1");
  job.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(RemotePostOffices, FollowTheVersionOfTheViewManager) {
  service_.Answer("OpenDynamicView", OpenViewResults({}, 8));
  service_.Answer("AddInterest", AddInterestResults(3, 4));
  std::string end;
  for (const char* const method : {"CloseView", "RemoveInterest"}) {
    service_.On(method, [&](const ServiceCallPtr& call) {
      end = call->GetAsked();
      call->Reply();
    });
  }
  const char* const view[] = {"OpenDynamicView CloseView ", "<viewID>8</viewID>"};
  const char* const channel[] = {
      "Subscribe ReadSubscription AddInterest RemoveInterest Unsubscribe ",
      "<Subscriber>3</Subscriber><Interest>4</Interest>"};
  const struct {
    std::uint32_t version;
    const char* const (&expected)[2];  // the log, and in the call of the end
  } cases[] = {{1, view}, {0, channel}, {2, channel}, {0xFFFFFFFF, channel}};
  std::string log;
  for (const auto& [version, expected] : cases) {
    auto office = Make(version);
    std::unique_ptr<Subscription> subscription;
    EXPECT_FALSE(Subscribe(*office, subscription).IsFailure());
    EXPECT_NE(subscription, nullptr);
    subscription.reset();
    office.reset();
    log.append(expected[0]);
    EXPECT_EQ(service_.GetLog(), log);
    EXPECT_NE(end.find(expected[1]), std::string::npos) << end;
  }
}

TEST_F(RemotePostOffices, NeedAConnectionThatTellsTheVersion) {
  const Por::Test::Thrown thrown = Por::Test::Catch([] { CreateRemoteViewProvider(nullptr); });
  EXPECT_EQ(thrown.error, "Error fc0017: DML: Cannot access a disposed object.");
  EXPECT_TRUE(thrown.place.ends_with(" CreateRemoteViewProvider"));
  service_.version_error = Failure(0xAD0107);
  EXPECT_EQ(Por::Test::Catch([&] { Make(2); }).error, "Error ad0107: ");
}

TEST_F(RemotePostOffices, CompleteACopyOfTheOptions) {
  std::vector<std::pair<Por::SharedUnit, Por::SharedUnit>> cases;
  const auto add = [&cases](Por::SharedUnit given, Por::OwnedUnit sent) {
    Por::Util::AddProperty(*sent, "EntryPoint", MakeEntryPointUnit(), Por::Test::Factory());
    cases.emplace_back(std::move(given), std::move(sent));
  };
  add(nullptr, Composite("LimitOptions", DWord(2000)));
  add(Composite(), Composite("LimitOptions", DWord(2000)));
  add(Composite("LimitOptions", DWord(5)), Composite("LimitOptions", DWord(5)));
  add(Composite("LimitOptions", Por::Test::Nil()), Composite("LimitOptions", Por::Test::Nil()));
  add(Marked(Composite("EntryPoint", DWord(1), "Other", Text(u"x")), "Is", Text(u"Options")),
      Marked(Composite("Other", Text(u"x"), "LimitOptions", DWord(2000)), "Is", Text(u"Options")));

  const auto office = Make(1);
  ServiceCallPtr asked;
  service_.On("OpenStaticView", [&](const ServiceCallPtr& call) {
    asked = call;
    call->Reply(OpenViewResults({}));
  });
  for (const auto& [given, sent] : cases) {
    const Por::SharedUnit before =
        given != nullptr ? Por::Util::CopyUnit(*given, Por::Test::Factory()) : nullptr;
    const Por::SharedUnit pattern = asked == nullptr ? nullptr : Por::SharedUnit(Text(u"p"));
    TellingHandler handler;
    const auto job = office->Report(MakeEntryPoint(), ViewSpec{pattern, given}, reader_, handler);
    EXPECT_FALSE(handler.Await().IsFailure());
    const Por::SharedUnit options = asked->GetUnit({"specification", "Options"});
    ASSERT_NE(options, nullptr);
    EXPECT_TRUE(Por::Util::UnitEqual(*options, *sent));
    const Por::SharedUnit asked_pattern = asked->GetUnit({"specification", "Pattern"});
    ASSERT_EQ(asked_pattern == nullptr, pattern == nullptr);
    EXPECT_TRUE(pattern == nullptr || Por::Util::UnitEqual(*asked_pattern, *pattern));
    EXPECT_TRUE(given == nullptr || Por::Util::UnitEqual(*given, *before));
  }
}

TEST_F(RemotePostOffices, RefuseOtherKindsOfOptionsBeforeThereIsAJob) {
  std::unique_ptr<Subscription> subscription;
  TellingHandler handler;
  const ViewSpec spec{nullptr, Por::Test::Nil()};
  // A transmission starts before the options are looked at.
  for (const auto& [version, log] :
       {std::pair(1u, ""), std::pair(2u, "Subscribe ReadSubscription ")}) {
    const auto office = Make(version);
    const auto expect_mismatch = [](const auto& ask) {
      const Por::Test::Thrown thrown = Por::Test::Catch(ask);
      EXPECT_NE(thrown.error.find("Error fa000a: "), std::string::npos);
      EXPECT_NE(thrown.error.find("'composite'"), std::string::npos);
    };
    expect_mismatch(
        [&] { office->Subscribe(MakeEntryPoint(), spec, reader_, subscription, handler); });
    expect_mismatch([&] { office->Report(MakeEntryPoint(), spec, reader_, handler); });
    EXPECT_EQ(service_.GetLog(), log);
  }
  EXPECT_EQ(handler.Count(), 0);
}

TEST_F(RemotePostOffices, ReadTheSnapshotBeforeTheSubscriptionAndTheEnd) {
  const struct {
    std::uint32_t version;
    const char* method;
    std::string results;
  } cases[] = {
      {1, "OpenDynamicView", OpenViewResults({Number(1), nullptr, Number(2)}, 8)},
      {2, "AddInterest", AddInterestResults(3, 4, {Number(1), nullptr, Number(2)})},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.method);
    service_.On(expected.method, [&](const ServiceCallPtr& call) {
      service_.Post([&expected, call] { call->Reply(expected.results); });
    });
    const auto office = Make(expected.version);
    std::unique_ptr<Subscription> subscription;
    reader_->read.clear();
    std::thread::id reading;
    reader_->in_read = [&] {
      EXPECT_EQ(subscription, nullptr);
      reading = std::this_thread::get_id();
      throw Failure(0x1234);
    };
    TellingHandler handler;
    handler.then = [&] {
      EXPECT_EQ(reader_->read, "+1+2");
      EXPECT_NE(subscription, nullptr);
    };
    const TestSupport::TraceRecorder traces;
    const auto job =
        office->Subscribe(MakeEntryPoint(), ViewSpec(), reader_, subscription, handler);
    EXPECT_FALSE(handler.Await().IsFailure());
    EXPECT_EQ(handler.thread, reading);
    // What the reader raises and the missing unit.
    EXPECT_EQ(traces.Codes(), "1 fc 1\n1 fc 1\n1 fc 1\n");
  }
}

TEST_F(RemotePostOffices, ReportWithoutAReader) {
  service_.Answer("OpenStaticView", OpenViewResults({Number(1), nullptr}));
  const auto office = Make(2);
  TellingHandler handler;
  const auto job = office->Report(MakeEntryPoint(), ViewSpec(), nullptr, handler);
  EXPECT_FALSE(handler.Await().IsFailure());
  EXPECT_EQ(service_.GetLog(), "OpenStaticView ");
}

TEST_F(RemotePostOffices, ShareATransmissionAmongTheSubscriptionsOfAConnection) {
  std::string asked;
  service_.On("AddInterest", [&](const ServiceCallPtr& call) {
    asked = call->GetAsked();
    call->Reply(AddInterestResults(3, 4));
  });
  const auto office = Make(2);
  std::unique_ptr<Subscription> subscriptions[7];
  std::unique_ptr<Subscription>* next = subscriptions;
  unsigned int count = 0;
  const auto expect_transmission = [&](std::uint32_t key, unsigned int transmission) {
    service_.connection_key = key;
    EXPECT_FALSE(Subscribe(*office, *next++).IsFailure());
    EXPECT_NE(asked.find(Element("Subscription", std::to_string(transmission))), std::string::npos);
    EXPECT_EQ(service_.Count("Subscribe"), static_cast<int>(count));
  };
  for (const std::uint32_t key : {0u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    service_.Answer("Subscribe", SubscribeResults(++count));
    expect_transmission(key, count);
    expect_transmission(key, count);
  }
  expect_transmission(0, 1);
}

// Often, as threads that come one after the other are no trial.
TEST_F(RemotePostOffices, StartOneTransmissionForThreadsThatSubscribeAtOnce) {
  service_.Answer("AddInterest", AddInterestResults(3, 4));
  service_.On("Subscribe", [](const ServiceCallPtr& call) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));  // for the others to ask, too
    call->Reply(SubscribeResults(3));
  });
  for (int round = 1; round <= 20; ++round) {
    const auto office = Make(2);
    std::unique_ptr<Subscription> subscriptions[4];
    std::latch start(4);
    std::vector<std::thread> threads;
    for (auto& place : subscriptions) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        EXPECT_FALSE(Subscribe(*office, place).IsFailure());
        EXPECT_NE(place, nullptr);
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(service_.Count("Subscribe"), round);
    EXPECT_EQ(service_.Count("AddInterest"), 4 * round);
  }
}

TEST_F(RemotePostOffices, TellTheFailureOfATransmissionWithinSubscribe) {
  const auto office = Make(2);
  std::unique_ptr<Subscription> subscription;
  const auto expect_failure = [&](std::uint32_t code, const char* log) {
    TellingHandler handler;
    handler.then = [] { throw Failure(5); };  // which stops there
    EXPECT_EQ(office->Subscribe(MakeEntryPoint(), ViewSpec(), reader_, subscription, handler),
              nullptr);
    EXPECT_EQ(handler.Count(), 1);
    EXPECT_EQ(handler.thread, std::this_thread::get_id());
    EXPECT_EQ(handler.Await().GetCode(), code);
    EXPECT_EQ(service_.GetLog(), log);
  };
  service_.Answer("Subscribe", "", Failure(0x61));
  expect_failure(0x61, "Subscribe ");
  service_.Answer("Subscribe", SubscribeResults(0));
  expect_failure(0x9C0002, "Subscribe Subscribe ");
  // Once it runs, its failure is for good.
  service_.Answer("Subscribe", SubscribeResults(3));
  service_.Answer("AddInterest", AddInterestResults(3, 4));
  EXPECT_FALSE(Subscribe(*office, subscription).IsFailure());
  const std::string log = "Subscribe Subscribe Subscribe ReadSubscription AddInterest ";
  EXPECT_EQ(service_.GetLog(), log);
  TellingHandler ended;
  NotingChanges changes;
  const auto job = subscription->Read(changes, ended);
  service_.Next("ReadSubscription")->Fail(Failure(0x62));
  EXPECT_EQ(ended.Await().GetCode(), 0x62u);
  expect_failure(0x62, (log + "RemoveInterest ").c_str());
}

// When the end is told a job that is still held has nothing more of the post office or the reply.
// A dispatcher would show in the references of the connection: but for that, the commands of both
// versions hold it in the same places.
TEST_F(RemotePostOffices, LetGoOfDispatcherAndSnapshotBeforeTheEndIsTold) {
  constexpr long long kObjects = 1000;
  const std::vector<Por::SharedUnit> snapshot(kObjects, Number(1));
  service_.canceling = ScriptedService::Canceling::kInside;  // all on this thread
  const TestSupport::TraceRecorder traces;
  const std::pair<std::string, std::uint32_t> outcomes[] = {
      {"success", 0},
      {"failure behind the results", 0x71},
      {"cancel", Async::kCanceledCode},
      {"no memory", Common::kOutOfMemoryCode}};
  for (const auto& expected : outcomes) {
    const std::string& outcome = expected.first;
    SCOPED_TRACE(outcome);
    long references[2] = {};
    for (const std::uint32_t version : {1u, 2u}) {
      service_.interface_version = version;
      const std::shared_ptr<Binding::AccessPoint> point = service_.Connect();
      auto office = CreateRemoteViewProvider(point);
      std::optional<TestSupport::AllocationWatch> watch;
      long long at_read = 0, at_end = 0;
      reader_->in_read = [&] {
        at_read = watch->GetLiveCount();
        if (outcome == "no memory") throw std::bad_alloc();
      };
      TellingHandler handler;
      handler.then = [&] {
        at_end = watch->GetLiveCount();
        std::thread([&] { office.reset(); }).join();
        references[version - 1] = point.use_count();
      };
      std::unique_ptr<Subscription> subscription;
      const auto job =
          office->Subscribe(MakeEntryPoint(), ViewSpec(), reader_, subscription, handler);
      const char* const method = version == 1 ? "OpenDynamicView" : "AddInterest";
      const std::string reply = ReplyOf(
          method, version == 1 ? OpenViewResults(snapshot, 8) : AddInterestResults(3, 4, snapshot));
      const ServiceCallPtr call = service_.Next(method);
      watch.emplace();
      if (outcome == "cancel") {
        job->Cancel();
      } else {
        call->ReplyElements(reply, outcome.starts_with("fail") ? Failure(0x71) : Common::Error());
      }
      EXPECT_EQ(handler.Count(), 1);
      EXPECT_EQ(handler.Await().GetCode(), expected.second);
      EXPECT_EQ(subscription != nullptr, outcome == "success");
      EXPECT_EQ(at_read >= kObjects, outcome == "success" || outcome == "no memory") << at_read;
      EXPECT_LT(at_end, kObjects / 10);
      watch.reset();
    }
    EXPECT_EQ(references[1], references[0]);
  }
}

// The reader is told before the service is.
TEST_F(RemotePostOffices, EndTheirTransmissionsWhoeverElseHoldsThem) {
  service_.Answer("AddInterest", AddInterestResults(3, 4));
  auto office = Make(2);
  std::unique_ptr<Subscription> subscription;
  TellingHandler subscribed;
  const auto command =
      office->Subscribe(MakeEntryPoint(), ViewSpec(), reader_, subscription, subscribed);
  EXPECT_FALSE(subscribed.Await().IsFailure());
  // On its way while the post office goes, though it shouldn't be.
  std::unique_ptr<Subscription> late;
  TellingHandler late_subscribed;
  ServiceCallPtr late_call;
  service_.On("AddInterest", [&](const ServiceCallPtr& call) { late_call = call; });
  const auto late_command =
      office->Subscribe(MakeEntryPoint(), ViewSpec(), reader_, late, late_subscribed);
  NotingChanges changes;
  TellingHandler read;
  read.then = [&] { EXPECT_EQ(service_.Count("Unsubscribe"), 0); };
  const auto job = subscription->Read(changes, read);
  EXPECT_EQ(read.Count(), 0);

  office.reset();
  EXPECT_EQ(read.Count(), 1);
  EXPECT_EQ(read.Await().GetCode(), Async::kCanceledCode);
  const std::string log =
      "Subscribe ReadSubscription AddInterest AddInterest RemoveInterest Unsubscribe ";
  EXPECT_EQ(service_.GetLog(), log);

  service_.Post([&] { late_call->Reply(AddInterestResults(3, 5)); });
  EXPECT_FALSE(late_subscribed.Await().IsFailure());
  ASSERT_NE(late, nullptr);
  TellingHandler late_read;
  late->Read(changes, late_read);
  EXPECT_EQ(late_read.Await().GetCode(), 0xFC000Bu);
  subscription.reset();
  late.reset();
  EXPECT_EQ(service_.GetLog(), log + "RemoveInterest RemoveInterest RemoveInterest ");
}

}  // namespace
}  // namespace Dml::Client
