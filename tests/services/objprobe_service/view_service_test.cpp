#include "services/objprobe_service/view_service.h"

#include <algorithm>
#include <map>
#include <thread>

#include "core/common/number_text.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/por/unit_operations.h"
#include "platform/store/sqlite_store_writer.h"
#include "services/objprobe_service/service_error.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/services/objprobe_service/record_texts.h"
#include "tests/services/objprobe_service/service_client.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

namespace ObjProbeService {

namespace {

using namespace Dml::ViewManagement;
using Dml::ViewSpec;
using Platform::Store::MakeId;
using Platform::Store::MakeObject;
using Platform::Store::Parse;
using Platform::Store::SqliteStoreWriter;

constexpr char kThings[] = ".Composite().Trait(\"Is\").String(\"Thing\").End().End()";
constexpr char kTwo[] = ".Composite().Property(\"LimitOptions\").DWord(2).End().End()";

// A store whose reading goes on until the test ends it.
class HeldOffice final : public Dml::PostOffice {
 public:
  struct Reading {
    std::unique_ptr<Dml::Subscription>* subscription = nullptr;
    Async::ActionHandler* handler = nullptr;
    void End(std::unique_ptr<Dml::Subscription> result) {
      *subscription = std::move(result);
      handler->Completed({});
    }
  };

  explicit HeldOffice(Reading& reading) : reading_(reading) {}
  std::shared_ptr<Async::Job> Subscribe(const Core::EntryPoint&, const ViewSpec&,
                                        std::shared_ptr<Dml::ReportReader>,
                                        std::unique_ptr<Dml::Subscription>& subscription,
                                        Async::ActionHandler& handler) override {
    reading_ = {&subscription, &handler};
    return std::make_shared<CancelledJob>(handler);
  }
  std::shared_ptr<Async::Job> Report(const Core::EntryPoint&, const ViewSpec&,
                                     std::shared_ptr<Dml::ReportReader>,
                                     Async::ActionHandler& handler) override {
    handler.Completed({});
    return nullptr;
  }

 private:
  class CancelledJob final : public Async::BaseJob {
   public:
    explicit CancelledJob(Async::ActionHandler& handler) : handler_(handler) {}
    void Cancel() override { handler_.Completed(Common::Error(Async::canceled_error.Get())); }

   private:
    Async::ActionHandler& handler_;
  };

  Reading& reading_;
};

// Never has a change.
class QuietSubscription final : public Dml::Subscription {
 public:
  ~QuietSubscription() override {
    if (handler_ != nullptr) handler_->Completed(Common::Error(Async::canceled_error.Get()));
  }
  std::shared_ptr<Async::Job> Read(Dml::SubscriptionReader&,
                                   Async::ActionHandler& handler) override {
    handler_ = &handler;
    return nullptr;
  }

 private:
  Async::ActionHandler* handler_ = nullptr;
};

class ViewServiceTest : public Platform::Store::StoreTest {
 protected:
  // Brief waits, so that tests of them don't take long.
  ViewServiceTest() { limits_.pull_wait = std::chrono::milliseconds(200); }
  ~ViewServiceTest() override {
    if (session_ != nullptr) session_->OnClosed();
  }

  void Serve(unsigned int version = 2) {
    if (!std::filesystem::exists(path_)) SqliteStoreWriter::Create(path_);
    Serve(Open(), version);
  }
  void Serve(std::unique_ptr<Dml::PostOffice> office, unsigned int version = 2) {
    service_ = std::make_unique<ViewService>(std::move(office), limits_, version,
                                             [this](const std::string& line) {
                                               if (!has_memory_) throw std::bad_alloc();
                                               const std::lock_guard lock(log_mutex_);
                                               log_ += line + "\n";
                                             });
    session_ = service_->Open("client");
  }
  SentRequest Send(std::unique_ptr<Binding::Request> request) {
    return ObjProbeService::Send(*session_, std::move(request));
  }
  std::uint32_t Call(std::unique_ptr<Binding::Request> request) {
    return Send(std::move(request)).Wait().GetCode();
  }
  void Delete(int number) {
    Common::Guid id;
    ASSERT_TRUE(Common::GuidFromString(id, MakeId(number).c_str()));
    SqliteStoreWriter writer(path_);
    writer.Begin();
    writer.Delete(id);
    writer.Commit();
  }

  unsigned int Subscribe() {
    Subscription subscription;
    EXPECT_EQ(Call(CreateSubscribeRequest({}, subscription)), 0U);
    EXPECT_NE(subscription.id, 0U);
    return subscription.id;
  }
  Topic AddInterest(unsigned int transmission, const std::string& pattern = "",
                    const std::string& options = "") {
    Topic topic;
    EXPECT_EQ(Call(CreateAddInterestRequest({transmission, MakeSpec(pattern, options)}, topic)),
              0U);
    EXPECT_EQ(topic.id.subscriber, transmission);
    EXPECT_NE(topic.id.interest, 0U);
    return topic;
  }
  // Pulls until so many records have come.
  Texts Pull(unsigned int transmission, std::size_t count) {
    Texts texts;
    while (texts.size() < count) {
      SubscriptionContent content;
      const std::uint32_t code = Call(CreateReadSubscriptionRequest(transmission, content));
      EXPECT_EQ(code, 0U);
      if (code != 0) break;
      for (const ViewUpdate& record : content.topic_updates)
        texts.push_back(DescribeRecord(record));
    }
    return texts;
  }
  // Waits for what a thread of the service is about to do.
  template <class Condition>
  static bool Eventually(Condition&& condition) {
    for (int i = 0; i < 6000; ++i) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  ServiceLimits limits_;
  std::mutex log_mutex_;
  std::string log_;
  bool has_memory_ = true;  // for the log
  std::unique_ptr<ViewService> service_;
  std::unique_ptr<Platform::Ipc::Session> session_;
};

TEST_F(ViewServiceTest, StaticViewGivesWhatMatches) {
  Store({MakeVersion(1, 5), MakeVersion(2, 6, "Other"), MakeVersion(3, 7), MakeVersion(4, 8)});
  Serve();
  const auto open = [&](const ViewSpec& spec) {
    Units units;
    EXPECT_EQ(Call(CreateOpenStaticViewRequest(spec, units)), 0U);
    return Describe(units);
  };
  EXPECT_EQ(open({}), (Texts{"1v5", "2v6", "3v7", "4v8"}));
  EXPECT_EQ(open(MakeSpec(kThings)), (Texts{"1v5", "3v7", "4v8"}));
  EXPECT_EQ(open(MakeSpec(kThings, kTwo)), (Texts{"1v5", "3v7"}));
  EXPECT_EQ(open(MakeSpec(".Composite().Trait(\"Is\").String(\"No\").End().End()")), Texts());
  // The object arrives as it is stored.
  Units units;
  EXPECT_EQ(Call(CreateOpenStaticViewRequest({}, units)), 0U);
  EXPECT_TRUE(Por::Util::UnitEqual(*units.at(1), *Parse(MakeVersion(2, 6, "Other"))));
}

TEST_F(ViewServiceTest, DynamicViewTellsChangesPullByPull) {
  Store({MakeVersion(1, 1), MakeVersion(2, 1, "Other")});
  Serve(1);
  unsigned int view = 0;
  Units snapshot;
  ASSERT_EQ(Call(CreateOpenDynamicViewRequest(MakeSpec(kThings), view, snapshot)), 0U);
  EXPECT_NE(view, 0U);
  EXPECT_EQ(Describe(snapshot), (Texts{"1v1"}));
  std::vector<ViewUpdate> updates;
  SentRequest pull = Send(CreateAcquireUpdatesRequest(view, updates));
  // Another one is refused while it waits.
  std::vector<ViewUpdate> none;
  EXPECT_EQ(Call(CreateAcquireUpdatesRequest(view, none)), kAlreadyRunning);
  Store({MakeVersion(2, 2), MakeVersion(1, 2)});
  EXPECT_EQ(pull.Wait().GetCode(), 0U);
  EXPECT_EQ(Describe(updates), (Texts{"+2v2", "~1v2"}));
  // What happens between two pulls comes with the next one.
  Store({MakeVersion(2, 3), MakeVersion(1, 3, "Other"), MakeVersion(3, 1)});
  Delete(3);
  Texts texts;
  while (texts.size() < 4) {
    ASSERT_EQ(Call(CreateAcquireUpdatesRequest(view, updates)), 0U);
    for (const ViewUpdate& update : updates) texts.push_back(Describe(update));
  }
  EXPECT_EQ(texts, (Texts{"~2v3", "-1", "+3v1", "-3"}));
}

TEST_F(ViewServiceTest, ViewsWaitForAChangeAndEndWithTheirClient) {
  Serve(1);
  unsigned int view = 0;
  Units snapshot;
  ASSERT_EQ(Call(CreateOpenDynamicViewRequest({}, view, snapshot)), 0U);
  // Nothing happens: the answer is empty, and the next pull waits again.
  std::vector<ViewUpdate> updates{{}};
  EXPECT_EQ(Call(CreateAcquireUpdatesRequest(view, updates)), 0U);
  EXPECT_EQ(Describe(updates), Texts());
  // A cancelled pull takes no change with it.
  SentRequest cancelled = Send(CreateAcquireUpdatesRequest(view, updates));
  cancelled.call->Cancel();
  Store({MakeVersion(1, 1)});
  EXPECT_EQ(Call(CreateAcquireUpdatesRequest(view, updates)), 0U);
  EXPECT_EQ(Describe(updates), (Texts{"+1v1"}));
  // A pull of a view that is closed is told.
  SentRequest waiting = Send(CreateAcquireUpdatesRequest(view, updates));
  EXPECT_EQ(Call(CreateCloseViewRequest(view)), 0U);
  EXPECT_EQ(waiting.Wait().GetCode(), kViewClosing);
  EXPECT_EQ(Call(CreateCloseViewRequest(view)), kUnknownView);
}

TEST_F(ViewServiceTest, InterestsShareOneStreamInChannels) {
  Store({MakeVersion(1, 1), MakeVersion(2, 1, "Other")});
  Serve();
  const unsigned int id = Subscribe();
  const Topic things = AddInterest(id, kThings);
  EXPECT_EQ(Describe(things.content), (Texts{"1v1"}));
  EXPECT_EQ(Pull(id, 1), (Texts{"1 open"}));
  const Topic all = AddInterest(id);
  EXPECT_EQ(all.id.interest, 2U);
  EXPECT_EQ(Describe(all.content), (Texts{"1v1", "2v1"}));
  // One object begins to match, one goes on, one stops, one is gone.
  Store({MakeVersion(2, 2), MakeVersion(2, 3), MakeVersion(1, 2, "Other")});
  Delete(2);
  Texts texts = Pull(id, 9);
  std::stable_sort(texts.begin(), texts.end(),
                   [](const std::string& a, const std::string& b) { return a[0] < b[0]; });
  EXPECT_EQ(texts,
            (Texts{"1+2v2", "1~2v3", "1-1", "1-2", "2 open", "2~2v2", "2~2v3", "2~1v2", "2-2"}));
  // The removal is the last that is told of a channel; the other one goes on.
  EXPECT_EQ(Call(CreateRemoveInterestRequest(things.id)), 0U);
  EXPECT_EQ(Call(CreateRemoveInterestRequest(things.id)), kUnknownChannel);
  EXPECT_EQ(Pull(id, 1), (Texts{"1 closed"}));
  Store({MakeVersion(3, 1)});
  EXPECT_EQ(Pull(id, 1), (Texts{"2+3v1"}));
}

TEST_F(ViewServiceTest, PullsWaitOneAtATime) {
  Serve();
  const unsigned int id = Subscribe();
  SubscriptionContent content{{{}}};
  EXPECT_EQ(Call(CreateReadSubscriptionRequest(id, content)), 0U);  // the time has passed
  EXPECT_TRUE(content.topic_updates.empty());
  limits_.pull_wait = std::chrono::minutes(1);
  session_->OnClosed();
  Serve();
  const unsigned int other = Subscribe();
  SentRequest cancelled = Send(CreateReadSubscriptionRequest(other, content));
  SubscriptionContent refused;
  EXPECT_EQ(Call(CreateReadSubscriptionRequest(other, refused)), kAlreadyRunning);
  cancelled.call->Cancel();
  SentRequest waiting = Send(CreateReadSubscriptionRequest(other, content));
  EXPECT_FALSE(waiting.call->IsAnswered());
  AddInterest(other);
  EXPECT_EQ(waiting.Wait().GetCode(), 0U);
  ASSERT_EQ(content.topic_updates.size(), 1U);
  EXPECT_EQ(DescribeRecord(content.topic_updates[0]), "1 open");
  waiting = Send(CreateReadSubscriptionRequest(other, content));
  EXPECT_EQ(Call(CreateUnsubscribeRequest(other)), 0U);
  EXPECT_EQ(waiting.Wait().GetCode(), kViewClosing);
  EXPECT_EQ(Call(CreateUnsubscribeRequest(other)), kUnknownTransmission);
}

TEST_F(ViewServiceTest, ClientThatDoesNotPullLosesItsTransmission) {
  for (const bool is_by_bytes : {false, true}) {
    SCOPED_TRACE(is_by_bytes);
    limits_.max_queue_records = is_by_bytes ? 1000 : 10;
    limits_.max_queue_bytes = is_by_bytes ? 2000 : std::size_t{1} << 20;
    log_.clear();
    Serve();
    const unsigned int id = Subscribe();
    const Topic topic = AddInterest(id);
    for (int i = 1; i <= 20; ++i) Store({MakeVersion(i, is_by_bytes ? 2 : 1)});
    EXPECT_TRUE(Eventually([&] {
      const std::lock_guard lock(log_mutex_);
      return log_.find("client: transmission failed: More updates wait") == 0;
    }));
    SubscriptionContent content;
    Topic none;
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(Call(CreateReadSubscriptionRequest(id, content)), kUpdatesNotTaken);
      EXPECT_EQ(Call(CreateAddInterestRequest({id, {}}, none)), kUpdatesNotTaken);
      EXPECT_EQ(Call(CreateRemoveInterestRequest(topic.id)), kUpdatesNotTaken);
    }
    // Only the transmission is over, not the connection.
    const unsigned int next = Subscribe();
    AddInterest(next);
    EXPECT_EQ(Pull(next, 1), (Texts{"1 open"}));
    EXPECT_EQ(Call(CreateUnsubscribeRequest(id)), kUnknownTransmission);
    session_->OnClosed();
  }
}

TEST_F(ViewServiceTest, ChannelThatCannotGoOnSaysWhy) {
  Store({MakeVersion(1, 1)});
  Serve();
  const unsigned int id = Subscribe();
  const Topic topic = AddInterest(id);
  // The log no longer leads on from where the channel stands.
  Execute(path_, "DELETE FROM changes");
  Store({MakeVersion(1, 2)});
  EXPECT_EQ(Pull(id, 2), (Texts{"1 open", Join({"1 error ", std::to_string(0x40005)})}));
  // The others don't mind, and the channel can be put away.
  AddInterest(id);
  EXPECT_EQ(Call(CreateRemoveInterestRequest(topic.id)), 0U);
  EXPECT_EQ(Pull(id, 2), (Texts{"2 open", "1 closed"}));
}

TEST_F(ViewServiceTest, ObjectsDoNotSpeakForTheService) {
  Serve();
  const unsigned int id = Subscribe();
  AddInterest(id);
  Store({MakeObject(1, "Thing",
                    ".Trait(\"ChannelID\").DWord(7).End().Trait(\"ChannelRemoval\").Nil().End()"
                    ".Trait(\"ChannelError\").Nil().End().Trait(\"Alpha\").Nil().End()")});
  SubscriptionContent content;
  while (content.topic_updates.empty() || DescribeRecord(content.topic_updates[0]) == "1 open") {
    ASSERT_EQ(Call(CreateReadSubscriptionRequest(id, content)), 0U);
  }
  // All else is as it was.
  EXPECT_TRUE(Por::Util::UnitEqual(
      *content.topic_updates[0].key,
      *Parse(MakeObject(1, "Thing",
                        ".Trait(\"ChannelID\").DWord(1).End().Trait(\"Alpha\").Nil().End()"))));
}

TEST_F(ViewServiceTest, ClientThatVanishesLeavesNothing) {
  limits_.pull_wait = std::chrono::minutes(10);
  Store({MakeVersion(1, 1)});
  Serve();
  unsigned int view = 0;
  Units snapshot;
  std::vector<ViewUpdate> updates;
  SubscriptionContent content;
  ASSERT_EQ(Call(CreateOpenDynamicViewRequest({}, view, snapshot)), 0U);
  const unsigned int id = Subscribe();
  AddInterest(id);
  EXPECT_EQ(Pull(id, 1), (Texts{"1 open"}));
  std::vector<std::weak_ptr<TestCall>> calls;
  for (int i = 0; i < 2; ++i) {
    SentRequest waiting = Send(i == 0 ? CreateAcquireUpdatesRequest(view, updates)
                                      : CreateReadSubscriptionRequest(id, content));
    calls.push_back(waiting.call);
    waiting.call->Cancel();
  }
  session_->OnClosed();
  session_.reset();
  for (const auto& call : calls) {
    EXPECT_TRUE(Eventually([&] { return call.expired(); }));
  }
  // What it asked for means nothing to the next one.
  session_ = service_->Open("next");
  EXPECT_EQ(Call(CreateCloseViewRequest(view)), kUnknownView);
  EXPECT_EQ(Call(CreateReadSubscriptionRequest(id, content)), kUnknownTransmission);
  EXPECT_NE(Subscribe(), id);
}

TEST_F(ViewServiceTest, ClientIsHeldToItsLimits) {
  Store({MakeVersion(1, 1), MakeVersion(2, 1)});
  limits_.max_views = 2;
  limits_.max_reports = 1;
  Serve();
  const unsigned int id = Subscribe();
  Subscription second;
  EXPECT_EQ(Call(CreateSubscribeRequest({}, second)), kSecondTransmission);
  const Topic topic = AddInterest(id);
  unsigned int view = 0;
  Units snapshot;
  ASSERT_EQ(Call(CreateOpenDynamicViewRequest({}, view, snapshot)), 0U);
  Topic refused;
  EXPECT_EQ(Call(CreateAddInterestRequest({id, {}}, refused)), kTooManyViews);
  EXPECT_EQ(Call(CreateRemoveInterestRequest(topic.id)), 0U);
  EXPECT_EQ(AddInterest(id).id.interest, 2U);
  // Calls that must wait for their turn come to it, those that were cancelled meanwhile, too.
  std::vector<SentRequest> sent;
  std::vector<Units> results(8);
  for (Units& units : results) sent.push_back(Send(CreateOpenStaticViewRequest({}, units)));
  sent[5].call->Cancel();
  for (std::size_t i = 0; i < sent.size(); ++i) {
    if (i == 5) continue;
    EXPECT_EQ(sent[i].Wait().GetCode(), 0U);
    EXPECT_EQ(Describe(results[i]), (Texts{"1v1", "2v1"}));
  }
  const std::size_t size = sent[0].call->WaitForReply()->size();
  session_->OnClosed();
  limits_.max_view_bytes = 2000;
  for (const std::size_t less : {0U, 1U, 300U}) {  // one object takes some 190
    limits_.max_reply_bytes = size - less;
    Serve();
    EXPECT_EQ(Call(CreateOpenStaticViewRequest({}, snapshot)), less == 0 ? 0U : kReplyTooLarge);
    session_->OnClosed();
  }
  Serve();
  EXPECT_EQ(Call(CreateOpenDynamicViewRequest({}, view, snapshot)), kReplyTooLarge);
  EXPECT_EQ(Call(CreateCloseViewRequest(1)), kUnknownView);
  const std::string long_text(1000, 'x');
  EXPECT_EQ(Call(CreateOpenDynamicViewRequest(
                MakeSpec(Join({".String(\"", long_text, "\").End()"})), view, snapshot)),
            kTooManyViews);
}

TEST_F(ViewServiceTest, RememberedObjectsAreCounted) {
  const std::string many = ".Composite().Property(\"LimitOptions\").DWord(4294967295).End().End()";
  Store({MakeVersion(1, 1), MakeVersion(2, 1)});
  limits_.max_view_objects = 5;
  Serve();
  const unsigned int id = Subscribe();
  unsigned int view = 0;
  Units snapshot;
  AddInterest(id, "", many);
  AddInterest(id);  // without a limit nothing is remembered
  ASSERT_EQ(Call(CreateOpenDynamicViewRequest(MakeSpec("", many), view, snapshot)), 0U);
  Topic topic;
  EXPECT_EQ(Call(CreateAddInterestRequest({id, MakeSpec("", many)}, topic)), kTooManyViews);
  // A deletion makes room.
  Delete(1);
  std::vector<ViewUpdate> updates;
  EXPECT_EQ(Call(CreateAcquireUpdatesRequest(view, updates)), 0U);
  EXPECT_EQ(Describe(updates), (Texts{"-1"}));
  EXPECT_EQ(Pull(id, 4).size(), 4U);
  // Now each of the two remembers one object; of four more there is room for three.
  Store({MakeVersion(3, 1), MakeVersion(4, 1)});
  EXPECT_EQ(Pull(id, 4).size(), 4U);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Call(CreateAcquireUpdatesRequest(view, updates)), kTooManyViews);
  }
  EXPECT_EQ(Call(CreateCloseViewRequest(view)), 0U);
  Store({MakeVersion(5, 1), MakeVersion(6, 1), MakeVersion(7, 1)});
  Texts texts = Pull(id, 6);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "1+7v1"), 0);
  EXPECT_EQ(
      std::count(texts.begin(), texts.end(), Join({"1 error ", std::to_string(kTooManyViews)})), 1);
}

// Of a view, channel or transmission whose client doesn't learn of it nothing stays, its place
// included.
TEST_F(ViewServiceTest, SnapshotsThatAreNotToldLeaveNothing) {
  limits_.max_views = 1;
  limits_.max_reports = 1;
  HeldOffice::Reading reading;
  Serve(std::make_unique<HeldOffice>(reading));
  Subscription untold;
  for (const bool is_cancelled : {true, false}) {
    SentRequest sent = MakeCall(CreateSubscribeRequest({}, untold));
    is_cancelled ? sent.call->Cancel() : sent.call->TakeRoom();
    session_->OnCall(sent.call);
  }
  const unsigned int id = Subscribe();
  Units units;
  Topic topic;
  unsigned int view = 0;
  for (const bool is_cancelled : {true, false}) {
    SCOPED_TRACE(is_cancelled);
    for (const bool is_interest : {true, false}) {
      reading = {};
      SentRequest sent = Send(is_interest ? CreateAddInterestRequest({id, {}}, topic)
                                          : CreateOpenDynamicViewRequest({}, view, units));
      ASSERT_NE(reading.handler, nullptr);
      if (is_cancelled) {
        sent.call->Cancel();
      } else {
        sent.call->TakeRoom();
        reading.End(std::make_unique<QuietSubscription>());
        EXPECT_TRUE(sent.call->GetFailure().IsFailure());
      }
      EXPECT_EQ(Call(CreateOpenStaticViewRequest({}, units)), 0U);
    }
  }
  // The client hears of the channel that it doesn't know, and of its end.
  EXPECT_EQ(Pull(id, 2), (Texts{"2 open", "2 closed"}));
  EXPECT_EQ(Call(CreateRemoveInterestRequest({id, 2})), kUnknownChannel);
  EXPECT_EQ(Call(CreateCloseViewRequest(2)), kUnknownView);
  // The end of an interest finds no memory: its transmission fails for another reason, which can't
  // be told.
  session_->OnClosed();
  limits_.max_views = 2;
  limits_.max_queue_records = 1;
  Serve(std::make_unique<HeldOffice>(reading));
  const unsigned int next = Subscribe();
  has_memory_ = false;
  for (int i = 0; i < 2; ++i) {
    SentRequest sent = Send(CreateAddInterestRequest({next, {}}, topic));
    reading.End(std::make_unique<QuietSubscription>());
    EXPECT_EQ(sent.Wait().GetCode(), i == 0 ? 0U : Common::Error::OutOfMemory().GetCode());
  }
  EXPECT_EQ(Call(CreateOpenStaticViewRequest({}, units)), 0U);
}

TEST_F(ViewServiceTest, PullThatFindsNoMemoryLeavesNothing) {
  HeldOffice::Reading reading;
  Serve(std::make_unique<HeldOffice>(reading));
  unsigned int view = 0;
  Units units;
  SentRequest sent = Send(CreateOpenDynamicViewRequest({}, view, units));
  reading.End(std::make_unique<FailingSubscription>());
  ASSERT_EQ(sent.Wait().GetCode(), 0U);
  std::vector<ViewUpdate> updates;
  std::weak_ptr<TestCall> call;
  {
    SentRequest pull = Send(CreateAcquireUpdatesRequest(view, updates));
    EXPECT_EQ(pull.Wait().GetCode(), Common::Error::OutOfMemory().GetCode());
    call = pull.call;
  }
  EXPECT_TRUE(call.expired());
}

TEST_F(ViewServiceTest, SecondGenerationIsNotServedInTheFirst) {
  Serve(1);
  EXPECT_EQ(service_->GetInterfaces().at(0).version, 1U);
  Subscription subscription;
  SubscriptionContent content;
  Topic topic;
  std::unique_ptr<Binding::Request> requests[] = {
      CreateSubscribeRequest({}, subscription), CreateAddInterestRequest({1, {}}, topic),
      CreateReadSubscriptionRequest(1, content), CreateRemoveInterestRequest({1, 1}),
      CreateUnsubscribeRequest(1)};
  for (auto& request : requests) EXPECT_EQ(Call(std::move(request)), kUnknownMethod);
  session_->OnClosed();
  Serve();
  EXPECT_EQ(service_->GetInterfaces().at(0).component_id, 271U);
  EXPECT_EQ(service_->GetInterfaces().at(0).version, 2U);
}

// Two threads add and remove interests and one pulls while the store changes: of each channel comes
// its opening, then versions without a gap, then its removal.
TEST_F(ViewServiceTest, ChannelsKeepTheirOrderUnderLoad) {
  constexpr int kRounds = 15;
  constexpr unsigned int kVersions = 60;
  Store({MakeVersion(1, 0)});
  Serve();
  const unsigned int id = Subscribe();
  std::mutex mutex;
  std::map<unsigned int, unsigned int> starts;  // the version in the snapshot of a channel
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        const Topic topic = AddInterest(id);
        {
          const std::lock_guard lock(mutex);
          starts[topic.id.interest] = Por::Util::GetValue<unsigned int>(
              Por::Util::GetProperty(*topic.content.at(0), "V").GetValue());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(Call(CreateRemoveInterestRequest(topic.id)), 0U);
      }
    });
  }
  threads.emplace_back([&] {
    for (unsigned int version = 1; version <= kVersions; ++version)
      Store({MakeVersion(1, version)});
  });
  std::map<unsigned int, Texts> channels;
  std::size_t closed = 0;
  while (closed < 2 * kRounds) {
    for (const std::string& text : Pull(id, 1)) {
      std::size_t end = 0;
      const auto number = static_cast<unsigned int>(std::stoul(text, &end));
      channels[number].push_back(text.substr(end));
      if (text.ends_with(" closed")) ++closed;
    }
  }
  for (std::thread& thread : threads) thread.join();
  for (auto& [number, texts] : channels) {
    ASSERT_GE(texts.size(), 2U);
    Texts expected{" open"};
    for (std::size_t i = 1; i + 1 < texts.size(); ++i) {
      expected.push_back(Join({"~1v", std::to_string(starts[number] + i)}));
    }
    expected.emplace_back(" closed");
    EXPECT_EQ(texts, expected) << number;
  }
  EXPECT_EQ(channels.size(), 2U * kRounds);
}

}  // namespace

}  // namespace ObjProbeService
