#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/client/remoting.h"
#include "enterprise/common/dml/subscribe_without_report.h"
#include "enterprise/common/dml/synchronous_data_store.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/support/scripted_service.h"
#include "tests/support/trace_recorder.h"

// The whole client, as the program uses it, against services that do what they shouldn't. Each has
// a stated result, and each ends.

namespace Dml::Client {
namespace {

using namespace Testing;
using TestSupport::AcquireUpdatesResults;
using TestSupport::AddInterestResults;
using TestSupport::OpenViewResults;
using TestSupport::ReadSubscriptionResults;
using TestSupport::ScriptedService;
using TestSupport::ServiceCall;
using TestSupport::ServiceCallPtr;
using TestSupport::SubscribeResults;

using Script = std::function<void(ScriptedService&)>;

// What a job control has wrapped counts, not the wrapper.
std::string Describe(Common::Error error) {
  if (error.HoldsCode(Async::kCanceledCode)) return "canceled";
  while (error.GetCode() == Async::kDescribedJobCode) error = error.GetNextError();
  std::ostringstream text;
  text << std::hex << error.GetCode();
  return text.str();
}

// A service that does as it should: objects 1 and 2, then nothing. Scripts take over from here.
void Behave(ScriptedService& service) {
  service.Answer("OpenStaticView", OpenViewResults({Number(1), Number(2)}));
  service.Answer("OpenDynamicView", OpenViewResults({Number(1), Number(2)}, 8));
  service.Answer("Subscribe", SubscribeResults(3));
  service.Answer("AddInterest", AddInterestResults(3, 4, {Number(1), Number(2)}));
  service.AnswerFarewells();
}

// Answers the calls of a method on a thread of the service.
Script Answers(std::string method, std::function<void(ServiceCall&)> answer) {
  return [method = std::move(method), answer = std::move(answer)](ScriptedService& service) {
    service.On(method, [&service, answer](const ServiceCallPtr& call) {
      service.Post([call, answer] { answer(*call); });
    });
  };
}
// With these results, one after the other, and then never.
Script Replies(std::string method, std::vector<std::string> results) {
  return Answers(std::move(method), [next = std::make_shared<std::atomic<std::size_t>>(0),
                                     results = std::move(results)](ServiceCall& call) {
    if (const std::size_t number = (*next)++; number < results.size()) call.Reply(results[number]);
  });
}
// With whole replies, or what stands in their place.
Script Packets(std::string method, std::string elements) {
  return Answers(std::move(method), [elements = std::move(elements)](ServiceCall& call) {
    call.ReplyElements(elements);
  });
}
Script Fails(std::string method, bool in_transport = false) {
  return Answers(std::move(method), [in_transport](ServiceCall& call) {
    in_transport ? call.Fail(Failure(0x71)) : call.Reply("", Failure(0x71));
  });
}
// What comes behind the cancel isn't seen.
Script RepliesLate(std::string method, std::string results) {
  return [method = std::move(method), results = std::move(results)](ScriptedService& service) {
    service.canceling = ScriptedService::Canceling::kNever;
    Answers(method, [results](ServiceCall& call) {
      while (!call.IsCanceled()) std::this_thread::yield();
      call.Reply(results);
    })(service);
  };
}
Script NeverAnswers(std::string method) {
  return Replies(std::move(method), {});
}
Script Both(Script first, Script second) {
  return [first = std::move(first), second = std::move(second)](ScriptedService& service) {
    first(service);
    second(service);
  };
}

// What a listener sees: the outcome of its subscribing, then objects and the failure that ends its
// reads, then the calls at the end. `expected` says when it has seen enough: it cancels what it
// expects to be cancelled, a read behind as many objects as are expected.
std::string Listen(std::uint32_t version, const Script& script, const std::string& expected) {
  ScriptedService service;
  service.interface_version = version;
  Behave(service);
  script(service);
  std::string seen;
  try {
    const auto office = CreateRemoteViewProvider(service.Connect());
    std::unique_ptr<Subscription> subscription;
    TellingHandler subscribed;
    {
      const auto job =
          SubscribeWithoutReport(Core::EntryPoint(), *office, *Por::GetStaticUnitFactory(),
                                 ViewSpec(), subscription, subscribed);
      if (expected.starts_with("canceled")) job->Cancel();
      seen.append(Describe(subscribed.Await())).append(" ");
    }
    NotingChanges changes;
    const bool is_canceled = expected.find("canceled") != std::string::npos;
    const auto wanted = std::count(expected.begin(), expected.end(), '+');
    std::ptrdiff_t objects = 0;
    for (Common::Error result; subscription != nullptr && !result.IsFailure();) {
      TellingHandler handler;
      const auto job = subscription->Read(changes, handler);
      if (is_canceled && objects >= wanted && job.get() != nullptr) job->Cancel();
      result = handler.Await();
      const std::string read = changes.Take();
      objects += std::count(read.begin(), read.end(), '+');
      seen.append(read);
      if (result.IsFailure()) seen.append(" ").append(Describe(result)).append(" ");
    }
  } catch (const Common::Error& error) {
    seen.append("raised ").append(Describe(error)).append(" ");
  }
  for (const char* const method : {"CloseView", "RemoveInterest", "Unsubscribe"}) {
    for (int i = service.Count(method); i > 0; --i) seen.append(method).append(" ");
  }
  return seen;
}

std::string Report(const Script& script) {
  ScriptedService service;
  Behave(service);
  script(service);
  NotingObjects objects;
  try {
    const auto office = CreateRemoteViewProvider(service.Connect());
    SynchronousDataStore store(office.get(), Por::GetStaticUnitFactory());
    store.Report(Core::EntryPoint(), ViewSpec(), objects);
    return objects.read;
  } catch (const Common::Error& error) {
    return Describe(error);
  }
}

TEST(MisbehavingService, OfReports) {
  const std::string method = "OpenStaticView";
  const struct {
    const char* name;
    Script script;
    const char* seen;
  } cases[] = {
      {"good", [](ScriptedService&) {}, "+1+2"},
      {"no reply", Packets(method, ""), "9c0002"},
      {"no objects", Packets(method, ReplyOf("OpenStaticView", "")), ""},
      {"null units", Replies(method, {OpenViewResults({nullptr, Number(1), nullptr})}), "+1"},
      {"a lost connection", Fails(method, true), "71"},
      {"an error beside results",
       [](ScriptedService& service) {
         service.Answer("OpenStaticView", OpenViewResults({Number(1)}), Failure(0x71));
       },
       "71"},
      {"no request possible",
       [](ScriptedService& service) { service.create_error = Failure(0x72); }, "72"},
      {"no start", [](ScriptedService& service) { service.start_error = Failure(0x73); }, "73"},
  };
  for (const auto& expected : cases) {
    EXPECT_EQ(Report(expected.script), expected.seen) << expected.name;
  }
}

TEST(MisbehavingService, OfViews) {
  const ViewUpdate no_key{ViewManagement::kUpdateDeleted, nullptr, nullptr};
  const ViewUpdate no_difference{ViewManagement::kUpdateUpdated, Number(5), nullptr};
  const ViewUpdate no_kind{77, Number(6), Number(7)};
  const struct {
    const char* name;
    Script script;
    const char* seen;
  } cases[] = {
      {"good", Replies("AcquireUpdates", {AcquireUpdatesResults({Created(3)})}),
       "0 +1+2+3 canceled CloseView CloseView "},
      {"null units",
       Both(Replies("OpenDynamicView", {OpenViewResults({nullptr, Number(1)}, 8)}),
            Replies("AcquireUpdates", {AcquireUpdatesResults({no_key, Created(3), no_difference,
                                                              no_kind, Created(4)})})),
       "0 +1+3+4 canceled CloseView CloseView "},
      {"no view", Packets("OpenDynamicView", ReplyOf("OpenDynamicView", "")),
       "0  canceled CloseView CloseView "},
      {"an unreadable view", Packets("OpenDynamicView", "<other></other>"), "9c0002 "},
      {"a failing view", Fails("OpenDynamicView"), "71 "},
      {"a view that never comes", NeverAnswers("OpenDynamicView"), "canceled "},
      {"failing updates", Fails("AcquireUpdates"), "0 +1+2 71 CloseView CloseView "},
      {"unreadable updates", Packets("AcquireUpdates", "<x></x>"),
       "0 +1+2 9c0002 CloseView CloseView "},
      {"updates without records", Replies("AcquireUpdates", {"", "<x></x>", "<updates></updates>"}),
       "0 +1+2 canceled CloseView CloseView "},
      {"a failing end", Both(Fails("CloseView"), NeverAnswers("AcquireUpdates")),
       "0 +1+2 canceled CloseView CloseView "},
      {"a late reply", RepliesLate("AcquireUpdates", AcquireUpdatesResults({Created(3)})),
       "0 +1+2 canceled CloseView CloseView "},
  };
  const TestSupport::TraceRecorder traces;
  for (const auto& expected : cases) {
    EXPECT_EQ(Listen(1, expected.script, expected.seen), expected.seen) << expected.name;
  }
  EXPECT_EQ(traces.Assertions(), std::vector<std::string>());
}

TEST(MisbehavingService, OfTransmissions) {
  const auto End = [](std::string seen) {
    return seen.append(" RemoveInterest RemoveInterest Unsubscribe ");
  };
  const ViewUpdate no_key{ViewManagement::kUpdateDeleted, nullptr, nullptr};
  const ViewUpdate no_difference{ViewManagement::kUpdateUpdated, InChannel(4, Number(5)), nullptr};
  const auto pulls = [](std::vector<std::vector<ViewUpdate>> batches) {
    std::vector<std::string> replies;
    for (const auto& batch : batches) replies.push_back(ReadSubscriptionResults(batch));
    return Replies("ReadSubscription", std::move(replies));
  };
  const struct {
    const char* name;
    Script script;
    std::string seen;
  } cases[] = {
      {"good", pulls({{Created(4, 3)}}), End("0 +1+2+3 canceled")},
      {"no transmission", Replies("Subscribe", {SubscribeResults(0)}), "9c0002 "},
      {"a failing transmission", Fails("Subscribe"), "71 "},
      {"a failing interest", Fails("AddInterest"), "71 Unsubscribe "},
      {"an unreadable interest", Packets("AddInterest", "<x></x>"), "9c0002 Unsubscribe "},
      {"an interest that never comes", NeverAnswers("AddInterest"), "canceled Unsubscribe "},
      // Channel 0, that of records that name none.
      {"an interest without a channel",
       Both(Packets("AddInterest", ReplyOf("AddInterest", "")), pulls({{Created(3)}})),
       End("0 +3 canceled")},
      {"null units",
       Both(Replies("AddInterest", {AddInterestResults(3, 4, {nullptr, Number(1)})}),
            pulls({{no_key, Created(4, 3), no_key, no_difference, Created(4, 4)}, {no_key}})),
       End("0 +1+3+4 canceled")},
      {"records of others", pulls({{Created(5, 7), Created(9)}, {Created(4, 3), Created(5, 8)}}),
       End("0 +1+2+3 canceled")},
      {"the end of a channel that nobody knows",
       pulls({{Mark(5, "ChannelRemoval"), Mark(6, "ChannelError"), Created(4, 3)}}),
       End("0 +1+2+3 canceled")},
      {"a failing channel",
       pulls({{Mark(4, "ChannelError", Por::GetStaticUnitFactory()->CreateError(Failure(0x75)))}}),
       End("0 +1+2 75")},
      // Nothing tells the reader: it waits until its cancel.
      {"a channel that is removed", pulls({{Created(4, 3), Mark(4, "ChannelRemoval")}}),
       End("0 +1+2 canceled")},
      {"failing pulls", Fails("ReadSubscription"), End("0 +1+2 71")},
      {"unreadable pulls", Packets("ReadSubscription", "<x></x>"), End("0 +1+2 9c0002")},
      {"pulls that bring nothing",
       Replies("ReadSubscription", {"", ReadSubscriptionResults({}), "<x></x>"}),
       End("0 +1+2 canceled")},
      {"a failing end", Both(Fails("RemoveInterest"), Fails("Unsubscribe", true)),
       End("0 +1+2 canceled")},
      {"a late reply", RepliesLate("ReadSubscription", ReadSubscriptionResults({Created(4, 3)})),
       End("0 +1+2 canceled")},
  };
  const TestSupport::TraceRecorder traces;
  for (const auto& expected : cases) {
    EXPECT_EQ(Listen(2, expected.script, expected.seen), expected.seen) << expected.name;
  }
  EXPECT_EQ(traces.Assertions(), std::vector<std::string>());
}

// They share what comes: each record goes to one of them.
TEST(MisbehavingService, NamesOneChannelTwice) {
  ScriptedService service;
  Behave(service);
  service.Answer("AddInterest", AddInterestResults(3, 4));
  const auto office = CreateRemoteViewProvider(service.Connect());
  std::unique_ptr<Subscription> first, second;
  for (auto* const subscription : {&first, &second}) {
    TellingHandler subscribed;
    const auto job =
        office->Subscribe(Core::EntryPoint(), ViewSpec(), nullptr, *subscription, subscribed);
    EXPECT_FALSE(subscribed.Await().IsFailure());
  }
  NotingChanges first_changes, second_changes;
  TellingHandler first_read, second_read, last_read;
  const auto job = first->Read(first_changes, first_read);
  EXPECT_EQ(second->Read(second_changes, second_read).get(), nullptr);
  EXPECT_EQ(Describe(second_read.Await()), "fc000c");
  service.Post([call = service.Next("ReadSubscription")] {
    call->Reply(ReadSubscriptionResults({Created(4, 1)}));
  });
  EXPECT_EQ(Describe(first_read.Await()), "0");
  EXPECT_EQ(first_changes.Take(), "+1");
  first.reset();
  service.Next("ReadSubscription")->Reply(ReadSubscriptionResults({Created(4, 2)}));
  second->Read(second_changes, last_read);
  EXPECT_EQ(Describe(last_read.Await()), "0");
  EXPECT_EQ(second_changes.Take(), "+2");
}

}  // namespace
}  // namespace Dml::Client
