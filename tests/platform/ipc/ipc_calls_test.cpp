#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "enterprise/common/ipc/call.h"
#include "enterprise/common/ipc/client/lib/client.h"
#include "platform/ipc/ipc_codes.h"
#include "tests/platform/ipc/ipc_test_support.h"
#include "tests/support/allocation_watch.h"

// Calls between a client and a server over a local socket.

namespace Platform::Ipc::Test {
namespace {

using JobPointer = std::unique_ptr<JobManagement::Job>;

TEST(IpcCalls, CarriesARequestAndItsReply) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  std::string reply;
  EXPECT_EQ(Call(*access_point, kEcho, "J\xFCrgen <&> 7", &reply).GetCode(), 0u);
  EXPECT_EQ(reply, "J\xFCrgen <&> 7");

  std::uint32_t version = 0;
  std::uint32_t further = 0;
  EXPECT_EQ(access_point->GetInterfaceVersion(kComponent, version, further).GetCode(), 0u);
  EXPECT_EQ(version, 2u);
  EXPECT_EQ(further, 7u);
  EXPECT_EQ(access_point->GetInterfaceVersion(99, version, further).GetCode(),
            kUnknownInterface.code);
  const std::uint32_t key = access_point->GetConnectionKey();
  EXPECT_NE(key, 0u);
  EXPECT_EQ(access_point->GetConnectionKey(), key);
  EXPECT_NE(pair.Connect()->GetConnectionKey(), key);
  EXPECT_EQ(pair.host.last_peer.user, std::to_string(::geteuid()));
  EXPECT_TRUE(pair.host.last_peer.is_local);
}

TEST(IpcCalls, TheFinalErrorIsThatOfTheReplyOrOfWhatStoodInItsWay) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  const struct {
    Method method;
    const char* text;
    std::uint32_t code;
  } cases[] = {
      {kFailing, "", kResultCode},
      {kFault, "", kFaultCode},
      {kDropping, "", kNoAnswer.code},
      {kThrowing, "", kNoAnswer.code},
      {kGarbage, "", 0x9C0003},  // the reader's: no element
      {kEmpty, "", 0x9C0003},
      {kEcho, "throw error", kResultCode},
      {kEcho, "throw", kRequestRaised.code},
      {kEcho, "throw at reading", kRequestRaised.code},
  };
  ::setenv("VELORIN_SAFE_ASSERT", "0", 1);
  for (const auto& entry : cases) {
    std::string reply = "as before";
    EXPECT_EQ(Call(*access_point, entry.method, entry.text, &reply).GetCode(), entry.code)
        << entry.method << " " << entry.text;
    EXPECT_EQ(reply, "as before");

    WaitingJobHandler handler;
    const JobPointer job = MakeJob(*access_point, entry.method, entry.text, &reply);
    const Common::Error started = job->Start(&handler);
    EXPECT_EQ((started.IsFailure() ? started : handler.Wait()).GetCode(), entry.code);
    EXPECT_EQ(handler.HasEnded(), !started.IsFailure());
  }
  std::string reply;
  EXPECT_EQ(Call(*access_point, kEcho, "goes on", &reply).GetCode(), 0u);
  EXPECT_EQ(reply, "goes on");
}

TEST(IpcCalls, NullRequestsAndUsedJobsAreErrors) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  JobPointer job;
  EXPECT_EQ(access_point->CreateJob(nullptr, job).GetCode(), kNullRequest.code);
  EXPECT_EQ(job, nullptr);
  EXPECT_EQ(Binding::Call(*access_point, nullptr).GetCode(), kNullRequest.code);

  job = MakeJob(*access_point, kEcho, "once");
  EXPECT_EQ(job->Run(nullptr).GetCode(), 0u);
  WaitingJobHandler handler;
  EXPECT_EQ(job->Start(&handler).GetCode(), kJobUsedTwice.code);
  EXPECT_FALSE(handler.HasEnded());

  job = MakeJob(*access_point, kEcho, "cancelled before");
  EXPECT_EQ(job->Cancel().GetCode(), 0u);
  EXPECT_EQ(job->Start(&handler).GetCode(), kCancelled.code);
}

TEST(IpcCalls, LongPacketsTravelInPartsAndShortOnesGetBetween) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  // A part of 256 KiB more or less, and both directions.
  for (const std::size_t size : {std::size_t{262'144 - 200}, std::size_t{262'144},
                                 std::size_t{524'288}, std::size_t{5'000'000}}) {
    std::string reply;
    EXPECT_EQ(Call(*access_point, kLong, std::to_string(size), &reply).GetCode(), 0u);
    EXPECT_EQ(reply.size(), size);
    const std::string text(size, 'y');
    EXPECT_EQ(Call(*access_point, kEcho, text, &reply).GetCode(), 0u);
    EXPECT_TRUE(reply == text);
  }
  StartedCall long_call(*access_point, kLong, "30000000");
  std::string reply;
  EXPECT_EQ(Call(*access_point, kEcho, "between", &reply).GetCode(), 0u);
  EXPECT_EQ(long_call.Wait().GetCode(), 0u);
  EXPECT_EQ(long_call.reply.size(), 30'000'000u);
}

TEST(IpcCalls, ACancelEndsTheCallHereAndTellsTheService) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  StartedCall call(*access_point, kWaiting);
  ASSERT_TRUE(pair.host.WaitFor(pair.host.calls, 1));
  EXPECT_EQ(call.job->Cancel().GetCode(), 0u);
  EXPECT_EQ(call.Wait().GetCode(), kCancelled.code);
  EXPECT_TRUE(pair.host.WaitFor(pair.host.cancelled, 1));
  pair.host.Release();  // too late
  EXPECT_EQ(call.job->Cancel().GetCode(), 0u);
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), 0u);
  EXPECT_EQ(call.reply, "");
  EXPECT_TRUE(call.handler.IsTold());
}

// Waits in the middle of being written.
class SlowRequest final : public Binding::Detail::RequestBase {
 public:
  SlowRequest(std::latch& begun, std::latch& go)
      : RequestBase(TextRequest(kWaiting, "", nullptr).GetMethodInfo()), begun_(begun), go_(go) {}
  void WriteArguments(Serialization::Serializer&) const override {
    begun_.count_down();
    go_.wait();
  }
  void ReadResults(Serialization::Deserializer&) override {}

 private:
  std::latch& begun_;
  std::latch& go_;
};

TEST(IpcCalls, ACancelDuringTheStartIsNotLost) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  std::latch begun(1);
  std::latch go(1);
  JobPointer slow;
  ASSERT_EQ(access_point->CreateJob(std::make_unique<SlowRequest>(begun, go), slow).GetCode(), 0u);
  WaitingJobHandler handler;
  std::uint32_t code = 0;
  std::jthread starter([&] { code = slow->Start(&handler).GetCode(); });
  begun.wait();
  EXPECT_EQ(slow->Cancel().GetCode(), 0u);
  go.count_down();
  starter.join();
  EXPECT_EQ(code, kCancelled.code);
  EXPECT_FALSE(handler.HasEnded());

  // At any other time, of the start and behind it: what has come to the service is told its cancel.
  for (int i = 0; i < 600; ++i) {
    const Method method = i % 2 == 0 ? kWaiting : i % 4 == 1 ? kEcho : kLong;
    WaitingJobHandler raced;
    const JobPointer job = MakeJob(*access_point, method, "300000");
    std::atomic<bool> starts = false;
    std::jthread canceller([&] {
      starts.wait(false);
      for (int spin = 0; spin < i * 50; ++spin) std::atomic_signal_fence(std::memory_order_seq_cst);
      job->Cancel();
    });
    starts = true;
    starts.notify_one();
    const std::uint32_t started = job->Start(&raced).GetCode();
    const std::uint32_t ended = started != 0 ? started : raced.Wait().GetCode();
    EXPECT_TRUE(ended == kCancelled.code || (ended == 0 && method != kWaiting)) << ended;
    EXPECT_EQ(raced.IsTold(), started == 0);
  }
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), 0u);
  EXPECT_TRUE(pair.host.WaitFor(pair.host.cancelled, pair.host.Read(pair.host.waits)));
}

TEST(IpcCalls, ASessionStaysAsLongAsACancelRunsInIt) {
  LocalPair pair;
  pair.host.holds_cancels = true;
  auto access_point = pair.Connect();
  {
    StartedCall call(*access_point, kWaiting);
    ASSERT_TRUE(pair.host.WaitFor(pair.host.calls, 1));
    call.job->Cancel();
    EXPECT_EQ(call.Wait().GetCode(), kCancelled.code);
  }
  ASSERT_TRUE(pair.host.WaitFor(pair.host.cancelled, 1));
  access_point.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_EQ(pair.host.Read(pair.host.closed), 0);
  pair.host.LetGo();
  EXPECT_TRUE(pair.host.WaitFor(pair.host.destroyed, 1));
}

TEST(IpcCalls, CallbacksMayDeleteTheirJobCallAgainAndDropTheConnectionButNotStopTheClient) {
  LocalPair pair;
  auto access_point = pair.Connect();
  WaitingJobHandler handler;
  JobPointer job = MakeJob(*access_point, kEcho, "1");
  std::uint32_t stopped = 0;
  std::uint32_t called = 1;
  handler.at_end = [&] {
    job.reset();
    stopped = pair.client->Stop().GetCode();
    called = Call(*access_point, kEcho, "2").GetCode();
    access_point.reset();
  };
  ASSERT_EQ(job->Start(&handler).GetCode(), 0u);
  EXPECT_EQ(handler.Wait().GetCode(), 0u);
  EXPECT_EQ(stopped, kDeinitInCallback.code);
  EXPECT_EQ(called, 0u);
  EXPECT_TRUE(pair.host.WaitFor(pair.host.destroyed, 1));
}

TEST(IpcCalls, BlockedCallbacksHoldNobodyUp) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  constexpr int kBlocked = 12;  // more than the pool has threads for by itself
  std::latch go(1);
  std::deque<StartedCall> calls;
  for (int i = 0; i < kBlocked; ++i) {
    calls.emplace_back(*access_point, kEcho, "", [&] { go.wait(); });
  }
  EXPECT_EQ(StartedCall(*access_point, kEcho).Wait().GetCode(), 0u);
  go.count_down();
  for (StartedCall& call : calls) EXPECT_EQ(call.Wait().GetCode(), 0u);
}

TEST(IpcCalls, StopEndsOpenCallsAndWaitsForTheirCallbacks) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  std::deque<StartedCall> calls;
  std::atomic<int> ended = 0;
  for (int i = 0; i < 20; ++i) {
    calls.emplace_back(*access_point, i % 2 == 0 ? kWaiting : kLong, "1000000", [&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      // The connection is gone, so this ends at once.
      EXPECT_NE(Call(*access_point, kEcho).GetCode(), 0u);
      ++ended;
    });
  }
  EXPECT_EQ(pair.client->Stop().GetCode(), 0u);
  EXPECT_EQ(ended, 20);
  for (StartedCall& call : calls) EXPECT_TRUE(call.handler.IsTold());

  JobPointer job;
  EXPECT_EQ(
      access_point->CreateJob(std::make_unique<TextRequest>(kEcho, "", nullptr), job).GetCode(),
      kNotConnected.code);
  std::uint32_t version = 0;
  EXPECT_EQ(access_point->GetInterfaceVersion(kComponent, version, version).GetCode(),
            kNotConnected.code);
  EXPECT_EQ(pair.client->Stop().GetCode(), 0u);
  EXPECT_EQ(pair.TryToConnect(), kNotStarted.code);
}

TEST(IpcCalls, AServerThatStopsEndsItsCallsAndSessions) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  StartedCall call(*access_point, kWaiting);
  ASSERT_TRUE(pair.host.WaitFor(pair.host.calls, 1));
  pair.server->Stop();
  EXPECT_EQ(pair.host.Read(pair.host.cancelled), 1);
  EXPECT_EQ(pair.host.Read(pair.host.closed), 1);
  EXPECT_EQ(pair.host.Read(pair.host.destroyed), 1);
  const Common::Error error = call.Wait();
  EXPECT_EQ(error.GetCode(), kConnectionLost.code);
  EXPECT_TRUE(error.HoldsCode(kServerStopped.code));

  std::uint32_t version = 0;
  const Common::Error dead = access_point->GetInterfaceVersion(kComponent, version, version);
  EXPECT_EQ(dead.GetCode(), kNotConnected.code);
  EXPECT_TRUE(dead.HoldsCode(kConnectionLost.code));

  EXPECT_EQ(pair.TryToConnect(), kNoLocalService.code);  // its socket is gone
  // An answer that comes after all of it does nothing.
  pair.host.Release();
}

TEST(IpcCalls, EitherEndStopsWhereverMemoryIsOut) {
  for (const bool is_server : {true, false}) {
    for (const unsigned int failures : {1u, 4u}) {
      bool has_failed = true;
      for (unsigned long long successes = 0; has_failed; ++successes) {
        LocalPair pair;
        const auto access_point = pair.Connect();
        StartedCall call(*access_point, kWaiting);
        ASSERT_TRUE(pair.host.WaitFor(pair.host.calls, 1));
        {
          const TestSupport::AllocationWatch watch(successes, failures);
          if (is_server) {
            pair.server->Stop();
          } else {
            pair.client->Stop();
          }
          has_failed = watch.HasFailed();
        }
        EXPECT_TRUE(has_failed || successes != 0);
        EXPECT_NE(call.Wait().GetCode(), 0u);
        EXPECT_TRUE(call.handler.IsTold());
        EXPECT_TRUE(pair.host.WaitFor(pair.host.destroyed, 1));
        EXPECT_EQ(pair.TryToConnect(), is_server ? kNoLocalService.code : kNotStarted.code);
      }
    }
  }
}

TEST(IpcCalls, EachGetsItsOwnReplyUntilEitherEndStopsInTheMiddleOfTraffic) {
  for (const bool is_server : {true, false}) {
    LocalPair pair;
    const auto access_point = pair.Connect();
    std::atomic<int> good = 0;
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&, thread] {
        struct Entry {
          WaitingJobHandler handler;
          std::string reply;
          JobPointer job;
        };
        const Method method = thread == 0 ? kLong : kEcho;
        for (bool is_over = false; !is_over;) {
          std::deque<Entry> entries;
          while (entries.size() < 50 && !is_over) {
            Entry& entry = entries.emplace_back();
            const int number = 300'000 + 1000 * thread + static_cast<int>(entries.size());
            is_over = access_point
                          ->CreateJob(std::make_unique<TextRequest>(method, std::to_string(number),
                                                                    &entry.reply),
                                      entry.job)
                          .IsFailure() ||
                      entry.job->Start(&entry.handler).IsFailure();
            if (is_over) entries.pop_back();
          }
          for (std::size_t i = 0; i < entries.size(); ++i) {
            const bool is_good = !entries[i].handler.Wait().IsFailure();
            EXPECT_TRUE(entries[i].handler.IsTold());
            is_over = is_over || !is_good;
            if (!is_good) continue;
            const std::size_t number = 300'001 + 1000 * static_cast<std::size_t>(thread) + i;
            EXPECT_EQ(thread == 0 ? entries[i].reply.size() : std::stoul(entries[i].reply), number);
            ++good;
          }
        }
      });
    }
    while (good < 400) std::this_thread::yield();
    if (is_server) {
      pair.server->Stop();
    } else {
      EXPECT_EQ(pair.client->Stop().GetCode(), 0u);
    }
    threads.clear();  // all have come to an end
  }
}

TEST(IpcCalls, WhatIsBeyondALimitFailsByItself) {
  Limits server_limits;
  server_limits.max_request_size = 100'000;
  server_limits.max_input = 150'000;
  server_limits.max_calls = 4;
  server_limits.max_output = 2'000'000;
  server_limits.max_connections = 1;
  Limits client_limits;
  client_limits.max_reply_size = 1'000'000;
  LocalPair pair(server_limits, client_limits);
  const auto access_point = pair.Connect();
  const std::string text(90'000, 'x');

  EXPECT_EQ(Call(*access_point, kEcho, std::string(700'000, 'x')).GetCode(), kRequestTooLarge.code);
  EXPECT_EQ(Call(*access_point, kLong, "1100000").GetCode(), kReplyTooLarge.code);
  EXPECT_EQ(Call(*access_point, kLong, "2100000").GetCode(), kOutputFull.code);
  EXPECT_EQ(Call(*access_point, kEcho, text).GetCode(), 0u);

  std::deque<StartedCall> calls;
  for (int i = 0; i < 4; ++i) calls.emplace_back(*access_point, kWaiting, i < 3 ? "" : text);
  ASSERT_TRUE(pair.host.WaitFor(pair.host.calls, 7));
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), kTooManyCalls.code);
  calls.front().job->Cancel();
  EXPECT_EQ(calls.front().Wait().GetCode(), kCancelled.code);
  EXPECT_EQ(Call(*access_point, kEcho, text).GetCode(), kInputFull.code);

  EXPECT_EQ(pair.TryToConnect(), kTooManyConnections.code);
  pair.host.Release();
  for (std::size_t i = 1; i < calls.size(); ++i) EXPECT_EQ(calls[i].Wait().GetCode(), 0u);
  EXPECT_EQ(Call(*access_point, kEcho, text).GetCode(), 0u);
}

TEST(IpcCalls, TheClientHasLimitsOfItsOwn) {
  Limits limits;
  limits.max_request_size = 1000;
  limits.max_calls = 1;
  LocalPair pair({}, limits);
  const auto access_point = pair.Connect();
  EXPECT_EQ(Call(*access_point, kEcho, std::string(1000, 'x')).GetCode(), kRequestTooLarge.code);
  StartedCall call(*access_point, kWaiting);
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), kTooManyCalls.code);
  call.job->Cancel();
  EXPECT_EQ(call.Wait().GetCode(), kCancelled.code);
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), 0u);
}

TEST(IpcCalls, TheLibraryReachesAServiceByItsPort) {
  LocalPair pair;
  Common::Error error;
  std::unique_ptr<Binding::AccessPoint> access_point;
  EXPECT_EQ(Binding::ConnectLocal(kServiceId, 0, access_point, {}).GetCode(),
            Binding::kNoLocalBrowserCode);
  Binding::ConnectionRecord record;
  record.host = "localhost";
  std::unique_ptr<Binding::Browser> browser;
  EXPECT_EQ(Binding::CreateBinder()->Bind(record, browser).GetCode(), kNotStarted.code);
  IPCClient_Deinit(error);
  EXPECT_EQ(error.GetCode(), kNotStarted.code);
  for (int round = 0; round < 2; ++round) {
    const Binding::ScopedIPCClient library;
    EXPECT_EQ(library.GetResult().GetCode(), 0u);
    ASSERT_EQ(Binding::ConnectLocal(kServiceId, 0, access_point, {}).GetCode(), 0u);
    EXPECT_EQ(Call(*access_point, kEcho).GetCode(), 0u);
    access_point.reset();
  }
  const Binding::ScopedIPCClient library;
  ::setenv("VELORIN_IPC_DIR", (pair.folder / "none").c_str(), 1);
  const Common::Error no_browser = Binding::ConnectLocal(kServiceId, 0, access_point, {});
  EXPECT_EQ(no_browser.GetCode(), Binding::kNoLocalBrowserCode);
  EXPECT_TRUE(no_browser.HoldsCode(kNoRuntimeDirectory.code));
}

}  // namespace
}  // namespace Platform::Ipc::Test
