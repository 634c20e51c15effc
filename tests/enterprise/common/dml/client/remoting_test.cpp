#include "enterprise/common/dml/client/remoting.h"

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/por/serialization/unit_serializer.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/enterprise/serialize/packet_support.h"
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

// The unit in the innermost of these elements of a call; each is the first of its name.
Por::SharedUnit ReadUnit(const std::string& asked, std::initializer_list<std::string> path) {
  const auto from = Serialization::Packets::OpenElements(asked);
  for (const std::string& name : path) from->BeginElement(Serialization::MetaInfo(name.c_str()));
  Por::SharedUnit unit;
  Por::Serialization::ReadUnit(*from, unit);
  return unit;
}

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

class NotingObjects final : public ReportReader {
 public:
  using ReportReader::Read;
  void Read(const Por::View::Unit& object) override {
    read.append("+").append(std::to_string(Por::Util::GetValue<unsigned int>(object)));
    if (in_read) in_read();
  }
  std::string read;
  std::function<void()> in_read;
};

class RemotePostOffices : public testing::Test {
 protected:
  RemotePostOffices() {
    for (const char* const method : {"CloseView", "RemoveInterest", "Unsubscribe"}) {
      service_.Answer(method);
    }
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

TEST_F(RemotePostOffices, FollowTheVersionOfTheViewManager) {
  service_.Answer("OpenDynamicView", OpenViewResults({}, 8));
  service_.Answer("AddInterest", AddInterestResults(3, 4));
  const struct {
    std::uint32_t version;
    const char* log;
  } cases[] = {
      {1, "OpenDynamicView CloseView "},
      {0, "Subscribe ReadSubscription AddInterest RemoveInterest Unsubscribe "},
      {2, "Subscribe ReadSubscription AddInterest RemoveInterest Unsubscribe "},
      {0xFFFFFFFF, "Subscribe ReadSubscription AddInterest RemoveInterest Unsubscribe "},
  };
  std::string log;
  for (const auto& expected : cases) {
    auto office = Make(expected.version);
    std::unique_ptr<Subscription> subscription;
    EXPECT_FALSE(Subscribe(*office, subscription).IsFailure());
    EXPECT_NE(subscription, nullptr);
    subscription.reset();
    office.reset();
    log.append(expected.log);
    EXPECT_EQ(service_.GetLog(), log);
  }
}

TEST_F(RemotePostOffices, NeedAConnectionThatTellsTheVersion) {
  try {
    CreateRemoteViewProvider(nullptr);
    ADD_FAILURE() << "made without a connection";
  } catch (const Common::Error& error) {
    EXPECT_EQ(error.GetCode(), 0xFC0017u);
    EXPECT_EQ(TestSupport::Utf8(error.GetMessage()), "DML: Cannot access a disposed object.");
    EXPECT_STREQ(error.GetLineTag().function, "CreateRemoteViewProvider");
  }
  service_.version_error = Failure(0xAD0107);
  try {
    Make(2);
    ADD_FAILURE() << "made without a version";
  } catch (const Common::Error& error) {
    EXPECT_EQ(error.GetRecord(), service_.version_error.GetRecord());
  }
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
  std::string asked;
  service_.On("OpenStaticView", [&](const ServiceCallPtr& call) {
    asked = call->GetAsked();
    call->Reply(OpenViewResults({}));
  });
  for (const auto& [given, sent] : cases) {
    const Por::SharedUnit before =
        given != nullptr ? Por::Util::CopyUnit(*given, Por::Test::Factory()) : nullptr;
    const Por::SharedUnit pattern = asked.empty() ? nullptr : Por::SharedUnit(Text(u"p"));
    TellingHandler handler;
    const auto job = office->Report(MakeEntryPoint(), ViewSpec{pattern, given}, reader_, handler);
    EXPECT_FALSE(handler.Await().IsFailure());
    const std::string envelope = "request_ViewManager_OpenStaticView";
    const Por::SharedUnit options = ReadUnit(asked, {envelope, "specification", "Options"});
    ASSERT_NE(options, nullptr);
    EXPECT_TRUE(Por::Util::UnitEqual(*options, *sent));
    const Por::SharedUnit asked_pattern = ReadUnit(asked, {envelope, "specification", "Pattern"});
    ASSERT_EQ(asked_pattern == nullptr, pattern == nullptr);
    EXPECT_TRUE(pattern == nullptr || Por::Util::UnitEqual(*asked_pattern, *pattern));
    EXPECT_TRUE(given == nullptr || Por::Util::UnitEqual(*given, *before));
  }

  // The other requests send the same.
  const auto expect_options = [&](const char* method, const std::string& results,
                                  std::initializer_list<std::string> path) {
    service_.On(method, [&](const ServiceCallPtr& call) {
      const Por::SharedUnit options = ReadUnit(call->GetAsked(), path);
      EXPECT_TRUE(options != nullptr && Por::Util::UnitEqual(*options, *cases[0].second));
      call->Reply(results);
    });
    std::unique_ptr<Subscription> subscription;
    EXPECT_FALSE(Subscribe(*Make(method[0] == 'O' ? 1 : 2), subscription).IsFailure());
  };
  expect_options("OpenDynamicView", OpenViewResults({}, 8),
                 {"request_ViewManager_OpenDynamicView", "specification", "Options"});
  expect_options("AddInterest", AddInterestResults(3, 4),
                 {"request_ViewManager_AddInterest", "spec", "Interest", "Options"});
}

TEST_F(RemotePostOffices, RefuseOtherKindsOfOptionsBeforeThereIsAJob) {
  std::unique_ptr<Subscription> subscription;
  TellingHandler handler;
  const auto expect_mismatch = [&](PostOffice& office, Por::SharedUnit options, const char* log) {
    const ViewSpec spec{nullptr, std::move(options)};
    for (const bool subscribes : {false, true}) {
      try {
        if (subscribes) {
          office.Subscribe(MakeEntryPoint(), spec, reader_, subscription, handler);
        } else {
          office.Report(MakeEntryPoint(), spec, reader_, handler);
        }
        ADD_FAILURE() << "accepted";
      } catch (const Common::Error& error) {
        EXPECT_EQ(error.GetCode(), 0xFA000Au);
        EXPECT_NE(TestSupport::Utf8(error.GetMessage()).find("'composite'"), std::string::npos);
      }
    }
    EXPECT_EQ(service_.GetLog(), log);
  };
  const auto views = Make(1);
  expect_mismatch(*views, Por::Test::Nil(), "");
  expect_mismatch(*views, Por::Test::Array(), "");
  // A transmission starts before the options are looked at.
  const auto channels = Make(2);
  expect_mismatch(*channels, DWord(1), "Subscribe ReadSubscription ");
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
    // A former content goes when the place is filled again, snapshot or not, reader or not.
    const Subscription* const former = subscription.get();
    service_.Answer(expected.method,
                    expected.version == 1 ? OpenViewResults({}, 9) : AddInterestResults(3, 5));
    const int ends = service_.Count("CloseView") + service_.Count("RemoveInterest");
    TellingHandler again;
    const auto second =
        office->Subscribe(MakeEntryPoint(), ViewSpec(), nullptr, subscription, again);
    EXPECT_FALSE(again.Await().IsFailure());
    EXPECT_NE(subscription.get(), former);
    EXPECT_EQ(service_.Count("CloseView") + service_.Count("RemoveInterest"), ends + 1);
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
  service_.Answer("AddInterest", AddInterestResults(3, 4));
  const auto office = Make(2);
  std::unique_ptr<Subscription> first, second, third;
  EXPECT_FALSE(Subscribe(*office, first).IsFailure());
  EXPECT_FALSE(Subscribe(*office, second).IsFailure());
  EXPECT_EQ(service_.GetLog(), "Subscribe ReadSubscription AddInterest AddInterest ");
  service_.connection_key = 2;
  service_.Answer("Subscribe", SubscribeResults(6));
  service_.On("AddInterest", [&](const ServiceCallPtr& call) {
    EXPECT_NE(call->GetAsked().find("<Subscription>6</Subscription>"), std::string::npos);
    call->Reply(AddInterestResults(6, 4));
  });
  EXPECT_FALSE(Subscribe(*office, third).IsFailure());
  EXPECT_EQ(service_.Count("Subscribe"), 2);
}

TEST_F(RemotePostOffices, TellTheFailureOfATransmissionWithinSubscribe) {
  const auto office = Make(2);
  std::unique_ptr<Subscription> subscription;
  const auto expect_failure = [&](std::uint32_t code, const char* log) {
    TellingHandler handler;
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
