#include "services/objprobe_service/transmission.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <thread>
#include <utility>

#include "services/objprobe_service/service_error.h"
#include "tests/services/objprobe_service/record_texts.h"
#include "tests/services/objprobe_service/service_client.h"

namespace ObjProbeService {

namespace {

using Dml::ViewManagement::CreateReadSubscriptionRequest;
using Dml::ViewManagement::SubscriptionContent;

// The changes of one channel, which are read when the test says so.
struct Source {
  std::deque<std::string> created;
  Common::Error failure;  // behind them
  Async::ActionHandler* handler = nullptr;
  std::atomic<Dml::SubscriptionReader*> reader = nullptr;  // set last, on any thread

  // A batch, as the store delivers it: it ends where the reader throws.
  void Deliver() {
    ASSERT_NE(reader, nullptr) << "Nobody reads.";
    Dml::SubscriptionReader& to = *reader.exchange(nullptr);
    Common::Error result = failure;
    try {
      while (!created.empty()) {
        const Por::OwnedUnit object = Platform::Store::Parse(created.front());
        created.pop_front();
        to.OnCreated(*object);
      }
    } catch (...) {
      result = Common::Error::OutOfMemory();
    }
    std::exchange(handler, nullptr)->Completed(result);
  }
};

class TestSubscription final : public Dml::Subscription {
 public:
  explicit TestSubscription(Source& source) : source_(source) {}
  ~TestSubscription() override {
    if (source_.reader.exchange(nullptr) == nullptr) return;
    std::exchange(source_.handler, nullptr)->Completed(Common::Error::OutOfMemory());
  }
  std::shared_ptr<Async::Job> Read(Dml::SubscriptionReader& reader,
                                   Async::ActionHandler& handler) override {
    source_.handler = &handler;
    source_.reader = &reader;
    return nullptr;
  }

 private:
  Source& source_;
};

class TransmissionTest : public testing::Test {
 protected:
  // An empty pull waits.
  void Make(std::chrono::milliseconds wait = std::chrono::hours(1)) {
    transmission_.reset();
    timer_ = std::make_unique<PullTimer>(wait);
    transmission_ = std::make_shared<Transmission>(
        1, limits_, *timer_, [this](const std::string& what, const Common::Error& failure) {
          failures_[what] = failure.GetCode();
        });
  }
  Source& Open() {
    const unsigned int number = transmission_->ReserveChannel();
    Source& source = sources_[number];
    EXPECT_FALSE(
        transmission_->OpenChannel(number, std::make_unique<TestSubscription>(source), nullptr)
            .IsFailure());
    return source;
  }
  static void Create(Source& source, int first, int last) {
    for (int i = first; i <= last; ++i) source.created.push_back(MakeVersion(i, 1));
  }
  SentRequest SendPull() {
    SentRequest sent = MakeCall(CreateReadSubscriptionRequest(1, content_));
    transmission_->Pull(sent.call);
    return sent;
  }
  Texts TakeAnswer(SentRequest sent) {
    EXPECT_EQ(sent.Wait().GetCode(), 0U);
    Texts texts;
    for (const auto& record : content_.topic_updates) texts.push_back(DescribeRecord(record));
    return texts;
  }
  Texts Pull() { return TakeAnswer(SendPull()); }

  ServiceLimits limits_;
  std::map<unsigned int, Source> sources_;
  std::map<std::string, std::uint32_t> failures_;
  SubscriptionContent content_;
  std::unique_ptr<PullTimer> timer_;
  std::shared_ptr<Transmission> transmission_;
};

// A change may be more than the queue holds: of a client that pulls that is no failure.
TEST_F(TransmissionTest, ClientThatPullsGetsMoreThanTheQueueHolds) {
  limits_.max_queue_records = 5;
  Make();
  Source& source = Open();
  EXPECT_EQ(Pull(), (Texts{"1 open"}));
  SentRequest waiting = SendPull();
  Create(source, 1, 11);
  source.Deliver();
  Texts texts = TakeAnswer(std::move(waiting));
  // Nobody waits now: what finds no room stays in the store.
  while (texts.size() < 11) {
    if (source.reader != nullptr) source.Deliver();
    for (std::string& text : Pull()) texts.push_back(std::move(text));
  }
  Texts expected;
  for (int i = 1; i <= 11; ++i) expected.push_back(Join({"1+", std::to_string(i), "v1"}));
  EXPECT_EQ(texts, expected);
  EXPECT_TRUE(failures_.empty());
  // In answers of a bounded size.
  limits_ = {};
  limits_.max_pull_bytes = 1000;
  Make();
  Source& many = Open();
  Create(many, 1, 11);
  many.Deliver();
  texts = Pull();
  EXPECT_LT(texts.size(), 8U);
  while (texts.size() < 12) {
    for (std::string& text : Pull()) texts.push_back(std::move(text));
  }
  expected.insert(expected.begin(), "1 open");
  EXPECT_EQ(texts, expected);
  // Larger than all of the queue's memory.
  limits_ = {};
  limits_.max_queue_bytes = 100;
  Make();
  Source& large = Open();
  EXPECT_EQ(Pull(), (Texts{"1 open"}));
  Create(large, 1, 2);
  large.Deliver();
  EXPECT_EQ(Pull(), (Texts{"1+1v1"}));
  large.Deliver();
  EXPECT_EQ(Pull(), (Texts{"1+2v1"}));
  EXPECT_TRUE(failures_.empty());
  // Behind a small one, too.
  limits_.max_queue_bytes = 2000;
  Make();
  Source& mixed = Open();
  mixed.created = {MakeVersion(1, 1), MakeVersion(2, 1, std::string(5000, 'x'))};
  EXPECT_EQ(Pull(), (Texts{"1 open"}));
  mixed.Deliver();
  EXPECT_EQ(Pull(), (Texts{"1+1v1", "1+2v1"}));
  EXPECT_TRUE(failures_.empty());
}

// Each channel that is being read as the queue fills has an update already. The client that pulls
// gets them all; what no channel holds back is bounded all the same.
TEST_F(TransmissionTest, ClientThatPullsGetsOneChangeInManyChannels) {
  constexpr int kChannels = 20;
  for (const bool is_by_bytes : {false, true}) {
    SCOPED_TRACE(is_by_bytes);
    limits_ = {};
    if (is_by_bytes) {
      limits_.max_queue_bytes = 100;
    } else {
      limits_.max_queue_records = 1;
    }
    transmission_.reset();
    sources_.clear();
    Make();
    Texts expected;
    for (int i = 1; i <= kChannels; ++i) {
      Open();
      EXPECT_EQ(Pull(), (Texts{std::to_string(i) + " open"}));
      expected.push_back(Join({std::to_string(i), "+1v1"}));
    }
    for (auto& [number, source] : sources_) Create(source, 1, 2);
    for (auto& [number, source] : sources_) source.Deliver();
    // None has read beyond its first one, though more than the bound waits.
    for (auto& [number, source] : sources_) EXPECT_EQ(source.reader.load(), nullptr);
    Open();
    expected.push_back(Join({std::to_string(kChannels + 1), " open"}));
    Texts texts;
    while (texts.size() < expected.size()) {
      for (std::string& text : Pull()) texts.push_back(std::move(text));
    }
    EXPECT_EQ(texts, expected);
    EXPECT_TRUE(failures_.empty());
    for (int i = 0; i < 2; ++i) {
      EXPECT_TRUE(failures_.empty());
      transmission_->OpenChannel(transmission_->ReserveChannel(),
                                 std::make_unique<TestSubscription>(sources_[100]), nullptr);
    }
    EXPECT_EQ(failures_,
              (std::map<std::string, std::uint32_t>{{"transmission", kUpdatesNotTaken}}));
    failures_.clear();
  }
}

TEST_F(TransmissionTest, ClientThatDoesNotPullIsGivenUp) {
  limits_.max_queue_records = 5;
  Make(std::chrono::milliseconds(20));
  Source& source = Open();
  Create(source, 1, 11);
  source.Deliver();
  EXPECT_EQ(source.created.size(), 9U);  // more than half
  EXPECT_TRUE(failures_.empty());
  while (source.reader == nullptr) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  source.Deliver();
  EXPECT_EQ(failures_, (std::map<std::string, std::uint32_t>{{"transmission", kUpdatesNotTaken}}));
  EXPECT_EQ(SendPull().Wait().GetCode(), kUpdatesNotTaken);
}

// The next answer would begin behind a gap.
TEST_F(TransmissionTest, AnswerThatDoesNotGoOutEndsIt) {
  for (const bool is_waiting : {false, true}) {
    for (const bool is_cancelled : {false, true}) {
      SCOPED_TRACE(Join({is_waiting ? "waiting" : "at once", is_cancelled ? ", cancelled" : ""}));
      Make();
      Source& source = Open();
      SentRequest sent = MakeCall(CreateReadSubscriptionRequest(1, content_));
      if (is_waiting) {
        Pull();
        transmission_->Pull(sent.call);
      }
      is_cancelled ? sent.call->Cancel() : sent.call->TakeRoom();
      if (is_waiting) {
        Create(source, 1, 1);
        source.Deliver();
      } else {
        transmission_->Pull(sent.call);
      }
      if (is_waiting && is_cancelled) {
        EXPECT_EQ(Pull(), (Texts{"1+1v1"}));
        continue;
      }
      EXPECT_EQ(std::exchange(failures_, {}),
                (std::map<std::string, std::uint32_t>{{"transmission", kUpdatesNotTaken}}));
      EXPECT_EQ(source.reader.load(), nullptr);
      EXPECT_EQ(SendPull().Wait().GetCode(), kUpdatesNotTaken);
    }
  }
}

// A client would drop the updates that stand in front of an error in one answer.
TEST_F(TransmissionTest, ErrorDoesNotFollowUpdatesInOneAnswer) {
  Make();
  Source& source = Open();
  Create(source, 1, 2);
  source.Deliver();
  source.failure = Common::Error::OutOfMemory();
  source.Deliver();
  Open();
  EXPECT_EQ(Pull(), (Texts{"1 open", "1+1v1", "1+2v1"}));
  const Texts last = Pull();
  ASSERT_EQ(last.size(), 2U);
  EXPECT_TRUE(last[0].starts_with("1 error ")) << last[0];
  EXPECT_EQ(last[1], "2 open");
}

TEST_F(TransmissionTest, ChannelThatFindsNoMemoryToReadSaysSo) {
  Make();
  transmission_->OpenChannel(transmission_->ReserveChannel(),
                             std::make_unique<FailingSubscription>(), nullptr);
  const std::uint32_t code = Common::Error::OutOfMemory().GetCode();
  EXPECT_EQ(Pull(), (Texts{"1 open", Join({"1 error ", std::to_string(code)})}));
  EXPECT_EQ(failures_, (std::map<std::string, std::uint32_t>{{"channel 1", code}}));
}

}  // namespace

}  // namespace ObjProbeService
