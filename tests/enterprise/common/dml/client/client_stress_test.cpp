#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/cyclic_runner.h"
#include "enterprise/common/async/synchronizer.h"
#include "enterprise/common/dml/client/remote_subscription_dispatcher.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/support/scripted_service.h"

// For the thread sanitizer: everything at once, with random pauses.

namespace Dml::Client {
namespace {

using namespace Testing;
using TestSupport::ReadSubscriptionResults;
using TestSupport::ScriptedService;
using TestSupport::ServiceCallPtr;

void Pause(std::mt19937& random) {
  for (unsigned int i = random() % 8; i != 0; --i) std::this_thread::yield();
}

// Expects the numbers from 1 on.
class CountingReader final : public SubscriptionReader {
 public:
  void OnCreated(const Por::View::Unit& object) override {
    EXPECT_FALSE(inside_.exchange(true));  // one call at a time
    EXPECT_EQ(Por::Util::GetValue<unsigned int>(object), ++read);
    inside_ = false;
  }
  void OnUpdated(const Por::View::Unit&, const Por::View::Unit&) override { ADD_FAILURE(); }
  void OnDeleted(const Por::View::Unit&) override { ADD_FAILURE(); }

  unsigned int read = 0;

 private:
  std::atomic<bool> inside_{false};
};

// Reads in cycles on threads of whoever delivers. A cycle that has ended is followed by the next
// one, until the test stops it.
class Follower {
 public:
  explicit Follower(std::unique_ptr<RemoteChannel> channel)
      : channel_(std::move(channel)), thread_([this] { Follow(); }) {}

  void Cancel() {
    std::shared_ptr<Async::Job> job;
    {
      const std::lock_guard lock(mutex_);
      job = job_;
    }
    if (job != nullptr) job->Cancel();
  }
  // Everything has been delivered, and a failure behind it. Returns how many records were read.
  unsigned int Stop() {
    stopping_ = true;
    thread_.join();
    return reader_.read;
  }

 private:
  // Reads behind a cancel fail until something is delivered.
  static constexpr int kRest = 20;

  void Follow() {
    for (bool is_last = false; !is_last;) {
      is_last = stopping_;
      Async::Synchronizer end;
      std::shared_ptr<Async::Job> job =
          Async::RunCyclic(Async::MakeAction([this](Async::ActionHandler& handler) {
                             return channel_->Read(reader_, handler);
                           }),
                           end);
      {
        const std::lock_guard lock(mutex_);
        job_ = job;
      }
      EXPECT_TRUE(end.Wait(job).IsFailure());
      {
        const std::lock_guard lock(mutex_);
        job_.reset();
      }
      for (int i = 0; i < kRest; ++i) std::this_thread::yield();
    }
  }

  const std::unique_ptr<RemoteChannel> channel_;
  CountingReader reader_;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::shared_ptr<Async::Job> job_;
  std::thread thread_;
};

constexpr unsigned int kChannels = 3;

// One transmission from its start to its end.
void RunTransmission(unsigned int seed, bool fails) {
  ScriptedService service;
  service.Answer("Subscribe", TestSupport::SubscribeResults(5));
  service.Answer("RemoveInterest");
  service.Answer("Unsubscribe");
  service.canceling =
      seed % 2 == 0 ? ScriptedService::Canceling::kOnThread : ScriptedService::Canceling::kInside;
  constexpr int kPulls = 60;
  // These belong to the pull in flight.
  std::array<unsigned int, kChannels> sent{};
  std::array<unsigned int, kChannels> sent_before{};  // the last pull
  ServiceCallPtr last_pull;
  std::mt19937 service_random(seed);
  std::atomic<int> pulls{0};
  std::atomic<int> answers_under_way{0};
  const auto answer = [&](const ServiceCallPtr& pull) {
    Pause(service_random);
    if (fails && pulls == kPulls) {
      pull->Fail(Failure(0x32));
      return;
    }
    std::array<unsigned int, kChannels> next = sent;
    std::vector<ViewUpdate> updates;
    for (unsigned int i = 0; i < service_random() % 6; ++i) {
      const unsigned int channel = static_cast<unsigned int>(service_random()) % kChannels;
      updates.push_back(Created(channel + 1, ++next[channel]));
    }
    if (service_random() % 16 == 0) {
      const unsigned int channel = static_cast<unsigned int>(service_random()) % kChannels;
      // Behind a record of another channel: it drops nothing.
      updates.push_back(Mark(0, "ChannelCreation"));
      updates.push_back(Mark(channel + 1, "ChannelError",
                             Por::GetStaticUnitFactory()->CreateError(Failure(0x55))));
    }
    // The next pull may begin inside.
    sent_before = std::exchange(sent, next);
    last_pull = pull;
    ++pulls;
    pull->Reply(ReadSubscriptionResults(updates));
  };
  service.On("ReadSubscription", [&](const ServiceCallPtr& pull) {
    // Sometimes there is something at once.
    if (service_random() % 4 == 0) {
      answer(pull);
      return;
    }
    ++answers_under_way;
    service.Post([&, pull] {
      answer(pull);
      --answers_under_way;
    });
  });

  auto dispatcher = std::make_shared<RemoteSubscriptionDispatcher>(service.Connect());
  std::array<std::unique_ptr<Follower>, kChannels> followers;
  EXPECT_FALSE(dispatcher->EnsureTransmission().IsFailure());
  for (unsigned int i = 0; i < kChannels; ++i) {
    followers[i] = std::make_unique<Follower>(dispatcher->CreateChannel(i + 1));
  }
  std::mt19937 random(seed + 1);
  for (int last = 0; last < kPulls;) {
    std::this_thread::yield();
    if (pulls == last) continue;
    last = pulls;
    followers[random() % kChannels]->Cancel();
  }
  // A failed pull or the end, whichever comes first.
  if (!fails || seed % 3 == 0) dispatcher->End();
  while (!dispatcher->EnsureTransmission().IsFailure()) std::this_thread::yield();
  dispatcher->End();
  while (answers_under_way != 0) std::this_thread::yield();
  // Whatever its answer was, nobody has read it.
  if (last_pull->IsCanceled()) sent = sent_before;
  for (unsigned int i = 0; i < kChannels; ++i) {
    EXPECT_EQ(followers[i]->Stop(), sent[i]) << "channel " << i << ", seed " << seed;
    followers[i].reset();
  }
  dispatcher.reset();
  EXPECT_EQ(service.Count("Subscribe"), 1);
  EXPECT_EQ(service.Count("Unsubscribe"), 1);
}

TEST(ClientStress, AChannelsRecordsAreReadOnceAndInOrderUntilTheEnd) {
  for (unsigned int seed = 1; seed <= 8; ++seed) RunTransmission(seed, seed % 2 == 0);
}

}  // namespace
}  // namespace Dml::Client
