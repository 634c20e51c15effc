#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/ipc/ipc_codes.h"
#include "tests/platform/ipc/ipc_test_support.h"
#include "tests/platform/ipc/raw_peer.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/child_process.h"

// What an end does when the other one doesn't keep to the rules, or isn't who it must be.

namespace Platform::Ipc::Test {
namespace {

using Buffer = RawPeer::Buffer;

Buffer Join(std::initializer_list<Buffer> parts) {
  Buffer all;
  for (const Buffer& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// The front of a packet: component 271, method, whole size; then bytes.
Buffer RequestStart(std::uint32_t method, std::uint64_t size, std::size_t bytes) {
  Buffer payload = {15, 1, 0, 0, static_cast<unsigned char>(method), 0, 0, 0};
  for (int i = 0; i < 8; ++i) payload.push_back(static_cast<unsigned char>(size >> 8 * i));
  payload.resize(payload.size() + bytes, 'x');
  return payload;
}

Buffer ReplyStart(std::uint64_t size, std::size_t bytes) {
  Buffer payload;
  for (int i = 0; i < 8; ++i) payload.push_back(static_cast<unsigned char>(size >> 8 * i));
  payload.resize(payload.size() + bytes, 'x');
  return payload;
}

std::uint32_t GetCode(const std::optional<RawPeer::Frame>& frame) {
  return frame ? DecodeError(frame->payload, Common::Error()).GetCode() : 0;
}

TEST(IpcServerPeer, IsTurnedOutForWhatIsMalformed) {
  LocalPair pair;
  const auto access_point = pair.Connect();
  const Buffer hello = RawPeer::MakeHello(kServiceId);
  Hello with_user;
  with_user.service_id = kServiceId;
  with_user.user.Fill() = "root";
  using Raw = RawPeer;
  const struct {
    const char* what;
    Buffer bytes;
    std::uint32_t code;  // 0: before the Welcome, when there is no Goodbye
  } cases[] = {
      {"text", {'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P', '/', '1', '.', '1', 13, 10}, 0},
      {"no Hello", Raw::MakeFrame(FrameKind::kRequest, 1, RequestStart(kEcho, 1, 1)), 0},
      {"malformed Hello", Raw::MakeFrame(FrameKind::kHello, 0, Buffer(24, 'x')), 0},
      {"credentials for Hello", Raw::MakeFrame(FrameKind::kHello, 0, EncodeHello(with_user)), 0},
      {"a second Hello", Join({hello, hello}), 0},
      {"unknown kind", Raw::MakeFrame(static_cast<FrameKind>(99), 0), kMalformedFrame.code},
      {"Hello again", hello, kUnexpectedFrame.code},
      {"more than announced", Raw::MakeFrame(FrameKind::kRequest, 1, RequestStart(kEcho, 3, 4)),
       kMalformedFrame.code},
      {"an id twice",
       Join({Raw::MakeFrame(FrameKind::kRequest, 1, RequestStart(kEcho, 9, 1)),
             Raw::MakeFrame(FrameKind::kRequest, 1, RequestStart(kEcho, 9, 1))}),
       kMalformedFrame.code},
  };
  for (const auto& entry : cases) {
    RawPeer peer = RawPeer::Connect(pair.GetSocket());
    ASSERT_TRUE(peer);
    if (entry.code != 0) {
      ASSERT_TRUE(peer.Send(hello));
      const auto welcome = peer.Receive();
      ASSERT_TRUE(welcome) << entry.what;
      EXPECT_EQ(welcome->kind, FrameKind::kWelcome);
    }
    peer.Send(entry.bytes);
    if (entry.code != 0) {
      const auto goodbye = peer.Receive();
      ASSERT_TRUE(goodbye) << entry.what;
      EXPECT_EQ(goodbye->kind, FrameKind::kGoodbye) << entry.what;
      EXPECT_EQ(GetCode(goodbye), entry.code) << entry.what;
    }
    EXPECT_TRUE(peer.WaitForEnd()) << entry.what;
    EXPECT_EQ(Call(*access_point, kEcho, "others go on").GetCode(), 0u);
  }
}

TEST(IpcServerPeer, IsRefusedWithAReason) {
  LocalPair pair;
  Hello other_version;
  other_version.service_id = kServiceId;
  other_version.lowest_version = 2;
  other_version.highest_version = 3;
  const struct {
    Buffer hello;
    std::uint32_t code;
  } cases[] = {
      {RawPeer::MakeHello(kServiceId + 1), kUnknownService.code},
      {RawPeer::MakeFrame(FrameKind::kHello, 0, EncodeHello(other_version)), kVersionMismatch.code},
  };
  for (const auto& entry : cases) {
    RawPeer peer = RawPeer::Connect(pair.GetSocket());
    ASSERT_TRUE(peer.Send(entry.hello));
    const auto refused = peer.Receive();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->kind, FrameKind::kRefused);
    EXPECT_EQ(GetCode(refused), entry.code);
    EXPECT_TRUE(peer.WaitForEnd());
  }
  EXPECT_EQ(pair.host.Read(pair.host.opened), 0);
}

TEST(IpcServerPeer, AServicesOwnRefusalReachesTheClient) {
  LocalPair pair;
  pair.host.refusal = Common::Error(kFaultCode, "Not today.", Common::LineTag());
  EXPECT_EQ(pair.TryToConnect(), kFaultCode);
}

TEST(IpcServerPeer, IsGivenUpWhenItIsSilentOrDoesNotRead) {
  Limits limits = MakeQuickLimits();
  LocalPair pair(limits);
  RawPeer mute = RawPeer::Connect(pair.GetSocket());  // never says Hello
  RawPeer silent = RawPeer::Connect(pair.GetSocket());
  ASSERT_TRUE(silent.Send(RawPeer::MakeHello(kServiceId)));
  EXPECT_TRUE(mute.WaitForEnd());
  EXPECT_TRUE(silent.WaitForEnd());
  EXPECT_TRUE(pair.host.WaitFor(pair.host.destroyed, 1));

  RawPeer deaf = RawPeer::Connect(pair.GetSocket());
  ASSERT_TRUE(deaf.Send(RawPeer::MakeHello(kServiceId)));
  ASSERT_TRUE(pair.host.WaitFor(pair.host.opened, 2));
  // It asks for more than sockets hold, and goes on with its heartbeat. Each call is small, its
  // answer is not.
  const std::string packet =
      "<XML_SERIALIZER><request_Test_Text><text>8000000</text></request_Test_Text>"
      "</XML_SERIALIZER>";
  Buffer request = RequestStart(kLong, packet.size(), 0);
  request.insert(request.end(), packet.begin(), packet.end());
  ASSERT_TRUE(deaf.SendFrame(FrameKind::kRequest, 1, request));
  const auto begin = std::chrono::steady_clock::now();
  while (deaf.SendFrame(FrameKind::kPing, 0) &&
         std::chrono::steady_clock::now() - begin < std::chrono::seconds(20)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_TRUE(pair.host.WaitFor(pair.host.destroyed, 2));
}

TEST(IpcServerPeer, CostsNoMemoryByALengthAlone) {
  Limits limits;
  limits.max_calls = 1000;
  LocalPair pair(limits);
  RawPeer peer = RawPeer::Connect(pair.GetSocket());
  ASSERT_TRUE(peer.Send(RawPeer::MakeHello(kServiceId)));
  ASSERT_TRUE(peer.Receive());
  // 64 MiB each: four of them are what the requests of a connection may have together.
  for (std::uint64_t id = 1; id <= 6; ++id) {
    ASSERT_TRUE(
        peer.SendFrame(FrameKind::kRequest, id, RequestStart(kEcho, std::uint64_t{64} << 20, 1)));
  }
  for (std::uint64_t id = 5; id <= 6; ++id) {
    const auto fault = peer.Receive();
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->kind, FrameKind::kFault);
    EXPECT_EQ(fault->call_id, id);
    EXPECT_EQ(GetCode(fault), kInputFull.code);
  }
  // What is cancelled makes room, and its further parts are dropped.
  ASSERT_TRUE(peer.SendFrame(FrameKind::kCancel, 1));
  ASSERT_TRUE(peer.SendFrame(FrameKind::kRequestPart, 1, {1, 2, 3}));
  ASSERT_TRUE(
      peer.SendFrame(FrameKind::kRequest, 8, RequestStart(kEcho, std::uint64_t{64} << 20, 1)));
  ASSERT_TRUE(peer.SendFrame(FrameKind::kRequest, 7, RequestStart(kEmpty, 0, 0)));
  const auto reply = peer.Receive();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->call_id, 7u);
}

TEST(IpcServerPeer, GetsNoAnswerOfACancelledCallForTheNextOneOfItsId) {
  LocalPair pair;
  pair.host.holds_cancels = true;
  RawPeer peer = RawPeer::Connect(pair.GetSocket());
  ASSERT_TRUE(peer.Send(RawPeer::MakeHello(kServiceId)));
  ASSERT_TRUE(peer.Receive());
  const std::string packet =
      "<XML_SERIALIZER><request_Test_Text><text></text></request_Test_Text></XML_SERIALIZER>";
  const auto request = [&](std::uint64_t id, std::uint32_t method) {
    Buffer payload = RequestStart(method, packet.size(), 0);
    payload.insert(payload.end(), packet.begin(), packet.end());
    return peer.SendFrame(FrameKind::kRequest, id, payload);
  };
  constexpr int kCalls = 20;
  for (std::uint64_t id = 1; id <= kCalls; ++id) request(id, kWaiting);
  ASSERT_TRUE(pair.host.WaitFor(pair.host.waits, kCalls));
  // The threads are held up by the cancels of others before that of the last one has its turn.
  for (std::uint64_t id = 1; id <= kCalls; ++id) peer.SendFrame(FrameKind::kCancel, id);
  request(kCalls, kFault);
  // Refused at once, behind the cancels.
  peer.SendFrame(FrameKind::kRequest, kCalls + 1, RequestStart(kEcho, 1ull << 40, 1));
  std::optional<RawPeer::Frame> answer;
  for (bool is_refused = false; !is_refused;) {
    auto frame = peer.Receive();
    ASSERT_TRUE(frame);
    is_refused = frame->call_id == kCalls + 1;
    if (!is_refused) answer = std::move(frame);
  }
  pair.host.Release();
  pair.host.LetGo();
  if (!answer) answer = peer.Receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->call_id, std::uint64_t{kCalls});
  EXPECT_EQ(answer->kind, FrameKind::kFault);
}

// Answers in the way of the method, while memory is out from some allocation on.
class ForgetfulHost final : public ServiceHost {
 public:
  enum Way : std::uint32_t { kReplies = 1, kRepliesShared, kFails, kDrops };

  bool Authenticate(const std::string&, const std::string&, const std::string&) override {
    return false;
  }
  std::unique_ptr<Session> Open(unsigned int, const Peer&, std::vector<InterfaceVersion>&,
                                Common::Error&) override {
    return std::make_unique<ForgetfulSession>(*this);
  }

  // Set before a call comes.
  unsigned long long successes = 0;
  unsigned long long failures = 0;
  // Behind a call.
  std::binary_semaphore is_done{0};
  bool has_failed = false;

 private:
  struct ForgetfulSession final : Session {
    explicit ForgetfulSession(ForgetfulHost& of) : host(of) {}
    void OnCall(std::shared_ptr<ServerCall> call) override { host.Answer(std::move(call)); }
    void OnClosed() override {}
    ForgetfulHost& host;
  };

  void Answer(std::shared_ptr<ServerCall> call) {
    const auto shared = std::make_shared<const Buffer>(40, 'r');
    Buffer packet = *shared;
    {
      const TestSupport::AllocationWatch watch(successes, failures);
      try {
        switch (call->GetMethodNumber()) {
          case kReplies:
            call->Reply(std::move(packet));
            break;
          case kRepliesShared:
            call->ReplyShared(shared, shared->data(), shared->size());
            break;
          case kFails:
            call->Fail(Common::Error::OutOfMemory());
            break;
        }
      } catch (const std::bad_alloc&) {
        call->Fail(Common::Error::OutOfMemory());
      }
      call.reset();
      has_failed = watch.HasFailed();
    }
    is_done.release();
  }
};

TEST(IpcServerPeer, GetsAnAnswerOrAnEndWhereverMemoryIsOut) {
  const TestSupport::TemporaryFolder folder;
  ::setenv("VELORIN_IPC_DIR", folder.GetPath().c_str(), 1);
  ForgetfulHost host;
  Limits limits;
  limits.heartbeat = std::chrono::milliseconds(40);  // it looks at its connections that often
  limits.idle = std::chrono::minutes(2);
  const auto server = Server::Create(host, limits);
  server->ListenLocal(kServiceId);
  for (const auto way : {ForgetfulHost::kReplies, ForgetfulHost::kRepliesShared,
                         ForgetfulHost::kFails, ForgetfulHost::kDrops}) {
    for (const unsigned long long failures : {1ull, TestSupport::AllocationWatch::kAll}) {
      bool has_failed = true;
      for (host.successes = 0; has_failed; ++host.successes) {
        host.failures = failures;
        RawPeer peer = RawPeer::Connect(folder / "service-33.sock");
        ASSERT_TRUE(peer.Send(RawPeer::MakeHello(kServiceId)));
        ASSERT_TRUE(peer.Receive());
        ASSERT_TRUE(peer.SendFrame(FrameKind::kRequest, 1, RequestStart(way, 0, 0)));
        host.is_done.acquire();
        has_failed = host.has_failed;
        const auto answer = peer.Receive();
        const FrameKind kind = answer ? answer->kind : FrameKind::kGoodbye;
        const FrameKind good =
            way <= ForgetfulHost::kRepliesShared ? FrameKind::kReply : FrameKind::kFault;
        EXPECT_TRUE(kind == good ||
                    (has_failed && (kind == FrameKind::kFault || kind == FrameKind::kGoodbye)))
            << way << " " << host.successes << " " << static_cast<int>(kind);
        if (kind != FrameKind::kGoodbye) continue;
        ASSERT_TRUE(peer.WaitForEnd()) << way << " " << host.successes;
      }
      // All but a shared packet take memory.
      EXPECT_TRUE(host.successes > 1 || way == ForgetfulHost::kRepliesShared) << way;
    }
  }
}

// Plays the service of one connection on a thread.
class FakeService {
 public:
  FakeService(const std::string& path, std::function<void(RawPeer&)> act)
      : listener_(RawPeer::Listen(path)), thread_([this, act = std::move(act)] {
          RawPeer peer(UniqueDescriptor(::accept(listener_.Get(), nullptr, nullptr)));
          act(peer);
        }) {}

 private:
  UniqueDescriptor listener_;
  std::jthread thread_;
};

// A client, and a folder where a fake service may be.
class IpcClientPeer : public testing::Test {
 protected:
  IpcClientPeer() { StartClient(Limits().answer); }

  void StartClient(std::chrono::milliseconds answer) {
    ClientOptions options;
    options.limits = MakeQuickLimits();
    options.limits.answer = answer;
    options.limits.handshake = std::chrono::milliseconds(1000);
    options.limits.max_reply_size = 1000;
    options.runtime_directory = folder_.GetPath();
    client_ = Client::Create(options);
  }

  Common::Error Connect(std::unique_ptr<Binding::AccessPoint>& access_point) {
    return ConnectLocally(*client_, access_point);
  }
  std::string GetSocket() const { return folder_ / "service-33.sock"; }

  TestSupport::TemporaryFolder folder_;
  std::shared_ptr<Client> client_;
};

TEST_F(IpcClientPeer, HandshakesEndInErrorsOfTheirOwnAndInTime) {
  const Buffer refused_for_nothing = RawPeer::MakeFrame(FrameKind::kRefused, 0, {9, 9});
  const struct {
    const char* what;
    Buffer bytes;
    bool closes;
    std::uint32_t code;
  } cases[] = {
      {"silence", {}, false, kConnectTimedOut.code},
      {"half a frame, and an end", {0, 0}, true, kClosedEarly.code},
      {"text", Buffer(16, 'x'), false, kMalformedFrame.code},
      {"a later version", RawPeer::MakeWelcome(2), false, kVersionMismatch.code},
      {"a malformed Welcome", RawPeer::MakeFrame(FrameKind::kWelcome, 0, Buffer(12, 'x')), false,
       kMalformedFrame.code},
      {"a Welcome without a key", RawPeer::MakeWelcome(kTransportVersion, 0), false,
       kMalformedFrame.code},
      {"a Reply", RawPeer::MakeFrame(FrameKind::kReply, 1, ReplyStart(1, 1)), false,
       kUnexpectedFrame.code},
      {"a part", RawPeer::MakeFrame(FrameKind::kReplyPart, 1, {1}), false, kUnexpectedFrame.code},
      {"Refused without a reason", refused_for_nothing, false, kConnectRefused.code},
      {"Goodbye", RawPeer::MakeFrame(FrameKind::kGoodbye, 0), false, kClosedEarly.code},
  };
  for (const auto& entry : cases) {
    FakeService service(GetSocket(), [&](RawPeer& peer) {
      const auto hello = peer.Receive();
      EXPECT_TRUE(hello && hello->kind == FrameKind::kHello);
      peer.Send(entry.bytes);
      if (entry.closes) return;
      EXPECT_TRUE(peer.WaitForEnd());
    });
    std::unique_ptr<Binding::AccessPoint> access_point;
    EXPECT_EQ(Connect(access_point).GetCode(), entry.code) << entry.what;
    EXPECT_EQ(access_point, nullptr);
    ::unlink(GetSocket().c_str());
  }
}

TEST_F(IpcClientPeer, CallsEndInErrorsOfTheirOwnAndInTime) {
  const struct {
    const char* what;
    Buffer bytes;
    bool closes;
    std::uint32_t code;
  } cases[] = {
      {"silence: a peer that is half open", {}, false, kPeerSilent.code},
      {"an end", {}, true, kConnectionLost.code},
      {"text", Buffer(16, 'x'), false, kMalformedFrame.code},
      {"an end in the middle", RawPeer::MakeFrame(FrameKind::kReply, 1, ReplyStart(9, 1)), true,
       kConnectionLost.code},
      {"a reply too large", RawPeer::MakeFrame(FrameKind::kReply, 1, ReplyStart(1001, 1)), false,
       kReplyTooLarge.code},
      {"a reply of all there is", RawPeer::MakeFrame(FrameKind::kReply, 1, ReplyStart(~0ull, 1)),
       false, kReplyTooLarge.code},
      {"more than announced", RawPeer::MakeFrame(FrameKind::kReply, 1, ReplyStart(3, 4)), false,
       kMalformedFrame.code},
      {"a part first", RawPeer::MakeFrame(FrameKind::kReplyPart, 1, {1}), false,
       kUnexpectedFrame.code},
      {"two first parts",
       Join({RawPeer::MakeFrame(FrameKind::kReply, 1, ReplyStart(9, 1)),
             RawPeer::MakeFrame(FrameKind::kReply, 1, ReplyStart(9, 1))}),
       false, kUnexpectedFrame.code},
      {"a Fault without an error", RawPeer::MakeFrame(FrameKind::kFault, 1, {9}), false,
       kNoAnswer.code},
      {"others' replies, then Goodbye",
       Join({RawPeer::MakeFrame(FrameKind::kReply, 2, ReplyStart(5000, 1)),
             RawPeer::MakeFrame(FrameKind::kReplyPart, 3, {1}),
             RawPeer::MakeFrame(FrameKind::kFault, 4, {}),
             RawPeer::MakeFrame(FrameKind::kGoodbye, 0)}),
       false, kConnectionLost.code},
      {"Welcome again", RawPeer::MakeWelcome(), false, kUnexpectedFrame.code},
  };
  for (const auto& entry : cases) {
    std::atomic<bool> is_done = false;
    FakeService service(GetSocket(), [&](RawPeer& peer) {
      EXPECT_TRUE(peer.Receive());
      peer.Send(RawPeer::MakeWelcome());
      const auto request = peer.Receive();
      EXPECT_TRUE(request && request->kind == FrameKind::kRequest && request->call_id == 1);
      peer.Send(entry.bytes);
      while (!entry.closes && !is_done) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    std::unique_ptr<Binding::AccessPoint> access_point;
    ASSERT_EQ(Connect(access_point).GetCode(), 0u);
    EXPECT_EQ(Call(*access_point, kEcho).GetCode(), entry.code) << entry.what;
    is_done = true;
    ::unlink(GetSocket().c_str());
  }
}

TEST_F(IpcClientPeer, ACallThatAThreadWaitsForFailsInTimeAndTheConnectionGoesOn) {
  FakeService service(GetSocket(), [&](RawPeer& peer) {
    EXPECT_TRUE(peer.Receive());
    peer.Send(RawPeer::MakeWelcome());
    EXPECT_TRUE(peer.Receive());
    const auto cancel = peer.Receive();
    EXPECT_TRUE(cancel && cancel->kind == FrameKind::kCancel && cancel->call_id == 1);
    const auto second = peer.Receive();
    EXPECT_TRUE(second && second->kind == FrameKind::kRequest && second->call_id == 2);
    const Buffer fault = EncodeError(Common::Error(kFaultCode, Common::LineTag()));
    peer.SendFrame(FrameKind::kReply, 1, ReplyStart(1, 1));  // late
    peer.SendFrame(FrameKind::kFault, 2, fault);
    EXPECT_TRUE(peer.WaitForEnd());
  });
  StartClient(std::chrono::milliseconds(150));
  std::unique_ptr<Binding::AccessPoint> access_point;
  ASSERT_EQ(Connect(access_point).GetCode(), 0u);
  const Common::Error error = Call(*access_point, kEcho);
  EXPECT_EQ(error.GetCode(), kNotAnswered.code);
  EXPECT_TRUE(error.HoldsCode(Common::kPosixErrorCode));
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), kFaultCode);
  access_point.reset();
}

// While it lives, so many more descriptors can be had.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int more) {
    ::getrlimit(RLIMIT_NOFILE, &former_);
    const int lowest = ::dup(STDERR_FILENO);
    ::close(lowest);
    rlimit limit = former_;
    limit.rlim_cur = static_cast<rlim_t>(lowest + more);
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &former_); }

 private:
  rlimit former_{};
};

TEST_F(IpcClientPeer, EachDescriptorThatCannotBeHadIsAnErrorOfBothEnds) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the check of dynamic types needs descriptors of its own, and fails without";
#endif
  const UniqueDescriptor silent = RawPeer::Listen(GetSocket());
  ClientOptions options;
  options.limits.handshake = std::chrono::milliseconds(20);
  options.runtime_directory = folder_.GetPath();
  ::setenv("VELORIN_IPC_DIR", folder_.GetPath().c_str(), 1);
  std::uint32_t connected = 0;
  std::uint32_t listened = 1;
  int errors_of_loops = 0;
  for (int more = 0; more < 12; ++more) {
    const auto client = Client::Create(options);
    TestHost host;
    const auto server = Server::Create(host);
    std::unique_ptr<Binding::AccessPoint> access_point;
    const DescriptorLimit limit(more);
    connected = ConnectLocally(*client, access_point).GetCode();
    listened = CodeOf([&] { server->ListenLocal(kServiceId + 1); });
    EXPECT_TRUE(connected != 0 && (more != 0 || listened != 0)) << more;
    errors_of_loops += connected == kNoResources.code;
    errors_of_loops += listened == kNoResources.code;
  }
  EXPECT_EQ(connected, kConnectTimedOut.code);  // got through to the peer, who says nothing
  EXPECT_EQ(listened, 0u);
  EXPECT_GE(errors_of_loops, 4);
}

TEST_F(IpcClientPeer, AHeartbeatKeepsAQuietConnection) {
  FakeService service(GetSocket(), [&](RawPeer& peer) {
    EXPECT_TRUE(peer.Receive());
    peer.Send(RawPeer::MakeWelcome());
    // Longer than the client takes silence.
    for (int i = 0; i < 20; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      peer.SendFrame(FrameKind::kPing, 0);
    }
    const auto request = peer.Receive();
    EXPECT_TRUE(request && request->kind == FrameKind::kRequest);
    // The request came behind 17 pings or so.
    EXPECT_GT(peer.GetPongs(), 2);
    peer.SendFrame(FrameKind::kFault, 1, EncodeError(Common::Error(kFaultCode, Common::LineTag())));
    EXPECT_TRUE(peer.WaitForEnd());
  });
  std::unique_ptr<Binding::AccessPoint> access_point;
  ASSERT_EQ(Connect(access_point).GetCode(), 0u);
  std::this_thread::sleep_for(std::chrono::milliseconds(900));
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), kFaultCode);
  access_point.reset();
}

TEST(IpcQuietPair, IsKeptByItsHeartbeatAlone) {
  LocalPair pair(MakeQuickLimits(), MakeQuickLimits());
  const auto access_point = pair.Connect();
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), 0u);
}

TEST_F(IpcClientPeer, AServerThatIsKilledIsALostConnection) {
  TestSupport::ChildProcess server([&] {
    ::setenv("VELORIN_IPC_DIR", folder_.GetPath().c_str(), 1);
    TestHost host;
    const auto child_server = Server::Create(host);
    child_server->ListenLocal(kServiceId);
    for (;;) ::pause();
    return true;
  });
  std::unique_ptr<Binding::AccessPoint> access_point;
  Common::Error error;
  for (int tries = 0; tries < 2000; ++tries) {
    error = Connect(access_point);
    if (error.GetCode() != kNoLocalService.code) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(error.GetCode(), 0u);
  StartedCall call(*access_point, kWaiting);
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), 0u);
  server.Kill();
  EXPECT_EQ(call.Wait().GetCode(), kConnectionLost.code);
  access_point.reset();
  // The socket stays behind, and the next server takes its place.
  error = Connect(access_point);
  EXPECT_EQ(error.GetCode(), kNoLocalService.code);
  EXPECT_TRUE(error.HoldsCode(Common::kPosixErrorCode));
  ::setenv("VELORIN_IPC_DIR", folder_.GetPath().c_str(), 1);
  TestHost host;
  const auto next = Server::Create(host);
  next->ListenLocal(kServiceId);
  ASSERT_EQ(Connect(access_point).GetCode(), 0u);
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), 0u);
  access_point.reset();
}

std::uint32_t ListenAgain(Server& server, unsigned int service_id) {
  return CodeOf([&] { server.ListenLocal(service_id); });
}

TEST(IpcLocalSockets, AreOneServersAloneAndGoWithIt) {
  LocalPair pair;
  struct stat found {};
  ASSERT_EQ(::stat(pair.GetSocket().c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 0777, 0600u);
  TestHost host;
  auto second = Server::Create(host);
  EXPECT_EQ(ListenAgain(*second, kServiceId), kSocketInUse.code);
  EXPECT_EQ(ListenAgain(*second, kServiceId + 1), 0u);
  EXPECT_EQ(Call(*pair.Connect(), kEcho).GetCode(), 0u);

  // A server leaves a socket alone that has taken the place of its own.
  ::unlink(pair.GetSocket().c_str());
  EXPECT_EQ(ListenAgain(*second, kServiceId), 0u);
  pair.server->Stop();
  EXPECT_EQ(::stat(pair.GetSocket().c_str(), &found), 0);
  second.reset();
  EXPECT_NE(::stat(pair.GetSocket().c_str(), &found), 0);
}

TEST(IpcLocalSockets, NobodyElseCanHoldAServerUp) {
  LocalPair pair;
  // What every local user can lock when the directory can be read.
  const UniqueDescriptor folder(::open(pair.folder.GetPath().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(folder.Get(), LOCK_EX), 0);
  TestHost host;
  auto other = Server::Create(host);
  EXPECT_EQ(ListenAgain(*other, kServiceId + 1), 0u);

  const std::string path = pair.folder / ("servers-" + std::to_string(::geteuid()) + ".lock");
  UniqueDescriptor lock(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat found {};
  ASSERT_EQ(::fstat(lock.Get(), &found), 0);
  EXPECT_EQ(found.st_mode & 0777, 0600u);
  ASSERT_EQ(::flock(lock.Get(), LOCK_EX), 0);
  EXPECT_EQ(ListenAgain(*other, kServiceId + 2), kListenFailed.code);
  other.reset();  // leaves its socket
  EXPECT_EQ(::stat((pair.folder / "service-34.sock").c_str(), &found), 0);
  lock.Reset();
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  EXPECT_EQ(ListenAgain(*Server::Create(host), kServiceId + 1), kListenFailed.code);
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  EXPECT_EQ(ListenAgain(*Server::Create(host), kServiceId + 1), 0u);
}

TEST(IpcLocalSockets, LieInADirectoryThatIsMadeAndMayHaveALongName) {
  const TestSupport::TemporaryFolder folder;
  const std::string directory = folder / std::string(150, 'd');
  ::setenv("VELORIN_IPC_DIR", directory.c_str(), 1);
  TestHost host;
  const auto server = Server::Create(host);
  server->ListenLocal(kServiceId);
  struct stat found {};
  ASSERT_EQ(::stat(directory.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 0777, 0700u);
  const auto client = Client::Create();
  std::unique_ptr<Binding::AccessPoint> access_point;
  ASSERT_EQ(ConnectLocally(*client, access_point).GetCode(), 0u);
  EXPECT_EQ(Call(*access_point, kEcho).GetCode(), 0u);
}

TEST(IpcLocalSockets, AreNotTrustedWhereOthersCouldHavePutThem) {
  LocalPair pair;
  const auto connect = [&] { return pair.TryToConnect(); };
  ASSERT_EQ(::chmod(pair.folder.GetPath().c_str(), 0777), 0);
  EXPECT_EQ(connect(), kUnsafeRuntimeDirectory.code);
  ASSERT_EQ(::chmod(pair.folder.GetPath().c_str(), 01777), 0);
  EXPECT_EQ(connect(), 0u);
  ASSERT_EQ(::chmod(pair.folder.GetPath().c_str(), 0720), 0);
  EXPECT_EQ(connect(), kUnsafeRuntimeDirectory.code);
  TestHost host;
  EXPECT_EQ(ListenAgain(*Server::Create(host), kServiceId + 1), kUnsafeRuntimeDirectory.code);
  ASSERT_EQ(::chmod(pair.folder.GetPath().c_str(), 0700), 0);
  EXPECT_EQ(connect(), 0u);

  if (::geteuid() != 0) GTEST_SKIP() << "other users can only be had by root";
  constexpr uid_t kOther = 65534;
  ASSERT_EQ(::chown(pair.GetSocket().c_str(), kOther, kOther), 0);
  EXPECT_EQ(connect(), kWrongOwner.code);
  ASSERT_EQ(::chown(pair.GetSocket().c_str(), 0, 0), 0);
  ASSERT_EQ(::chown(pair.folder.GetPath().c_str(), kOther, kOther), 0);
  EXPECT_EQ(connect(), kUnsafeRuntimeDirectory.code);
  ASSERT_EQ(::chown(pair.folder.GetPath().c_str(), 0, 0), 0);
  EXPECT_EQ(connect(), 0u);

  // A process of another user, behind a socket of root's.
  const std::string path = pair.folder / "service-50.sock";
  UniqueDescriptor listener(::socket(AF_UNIX, SOCK_STREAM, 0));
  const sockaddr_un address = RawPeer::MakeAddress(path);
  ASSERT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::seteuid(kOther), 0);
  const int listening = ::listen(listener.Get(), 1);
  ASSERT_EQ(::seteuid(0), 0);
  ASSERT_EQ(listening, 0);
  EXPECT_EQ(pair.TryToConnect(50), kWrongOwner.code);

  // A client of another user: by the socket's rights, and when these don't help, by the server.
  ASSERT_EQ(::chmod(pair.folder.GetPath().c_str(), 0755), 0);
  ASSERT_EQ(::seteuid(kOther), 0);
  const std::uint32_t code = connect();
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_EQ(code, kNotAdmitted.code);
  ASSERT_EQ(::chmod(pair.GetSocket().c_str(), 0666), 0);
  TestSupport::ChildProcess stranger([&] {
    if (::setuid(kOther) != 0) return false;
    RawPeer peer = RawPeer::Connect(pair.GetSocket());
    if (!peer.Send(RawPeer::MakeHello(kServiceId))) return false;
    const auto refused = peer.Receive();
    return refused && refused->kind == FrameKind::kRefused &&
           GetCode(refused) == kNotAdmitted.code && peer.WaitForEnd();
  });
  EXPECT_EQ(stranger.Wait(), 0);
}

}  // namespace
}  // namespace Platform::Ipc::Test
