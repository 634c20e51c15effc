#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/ipc/connection.h"
#include "platform/ipc/delivery.h"
#include "platform/ipc/ipc_codes.h"
#include "platform/ipc/server.h"

namespace Platform::Ipc {

class ServerConnection;

// What a connection needs of its server, which outlives its openness. Threads: any.
class ServerCore : public Common::NonCopyable {
 public:
  virtual ~ServerCore() = default;
  virtual ServiceHost& GetHost() = 0;
  virtual Delivery& GetDelivery() = 0;
  // Has the connection's RunOpening run on the pool: of a local connection at once, of a remote one
  // with those of few others at a time, and not at all once it has ended. Throws std::bad_alloc.
  virtual void PostOpening(std::shared_ptr<ServerConnection> connection) = 0;
  // The connection is welcome; until then it may be anyone's.
  virtual void NoteWelcomed(Connection& connection) = 0;
  // Counts connections that have a session; false: there are too many. Each that came in leaves.
  virtual bool Enter() = 0;
  virtual void Leave() = 0;
  virtual std::uint32_t MakeConnectionKey() = 0;
  // The connection has ended.
  virtual void Forget(Connection& connection) = 0;
};

class ConnectionCall;
using OpenCalls = std::unordered_map<std::uint64_t, std::weak_ptr<ConnectionCall>>;

// A session with what runs in it, so that its end comes behind all of that. As a task it is the
// end: it cancels the calls and closes the session.
class SessionRunner final : public DeliveryTask {
 public:
  // Once, before anything else.
  void SetSession(std::unique_ptr<Session> session) { session_ = std::move(session); }
  // On the pool. Nothing behind the end.
  void Call(std::shared_ptr<ServerCall> call);
  // The session stays until Leave, which may end it. Enter before the end alone.
  void Enter();
  void Leave();
  // What the end cancels. Before it, once.
  void SetOpenCalls(OpenCalls calls) { open_ = std::move(calls); }
  // Once.
  void Run() override;

 private:
  void Finish();

  std::unique_ptr<Session> session_;
  OpenCalls open_;
  std::mutex mutex_;  // guards what follows
  std::size_t running_ = 0;
  bool is_closed_ = false;
};

// The server's end of a connection.
class ServerConnection final : public Connection {
 public:
  struct Origin {
    bool is_local = false;
    bool is_admitted = true;      // local
    unsigned int service_id = 0;  // local: that of the socket
    Peer peer;                    // of a host without its user
  };

  ServerConnection(ServerCore& core, IoLoop& loop, UniqueDescriptor socket,
                   std::unique_ptr<TlsFilter> filter, Origin origin, const Limits& limits);

  bool IsLocal() const { return origin_.is_local; }
  // On the pool: finds out whether the peer is who it says, and opens its session. Does not throw.
  void RunOpening();

  // From the calls. Only the first one for an id does something.
  // Whether the client gets it, unless the connection ends before.
  bool Reply(std::uint64_t call_id, std::shared_ptr<const void> owner, const unsigned char* packet,
             std::size_t size) noexcept;
  void Fail(std::uint64_t call_id, const Common::Error& error) noexcept;
  // A call with a packet of that size is about to be answered, or is destroyed without an answer.
  void Release(std::size_t size);

 private:
  enum class Phase { kHello, kOpening, kOpen };

  struct IncomingPacket {
    PacketStart start;
    std::vector<unsigned char> data;
  };

  // Between the Hello and its answer: RunOpening's alone as long as it is under way.
  struct Opening {
    Hello hello;
    std::shared_ptr<SessionRunner> session;  // has entered
    std::vector<InterfaceVersion> interfaces;
    Common::Error error;          // without a session
    Clock::time_point refuse_at;  // not before
  };

  void OnReady() override {}
  void OnTick() noexcept override { core_.GetDelivery().EnsureRetry(); }
  bool OnFrame(FrameKind kind, std::uint64_t call_id, Bytes payload) override;
  bool OnPacketStart(const PacketStart& start) override;
  bool OnPacketBytes(std::uint64_t call_id, Bytes bytes) override;
  void OnEnd(const Common::Error& error) override;

  bool TakeHello(Bytes payload);
  bool Refuse(const Common::Error& error);
  void OpenSession(Opening& opening);
  void FinishOpening();
  void RefuseLater(Clock::time_point time, const Common::Error& error);
  void SendWelcome(std::vector<InterfaceVersion> interfaces);
  bool EndMalformed(const IpcFailure& failure, const char* detail, std::uint32_t line);
  bool Dispatch(IncomingPacket packet);
  // A client must not wait for an answer that has found no memory: then the connection ends.
  template <class Send>
  void Answer(Send&& send) noexcept;
  void TakeCancel(std::uint64_t call_id);
  // Takes a call out of the open ones. False: it isn't open.
  bool Take(std::uint64_t call_id);

  ServerCore& core_;
  const Origin origin_;

  std::atomic<bool> has_ended_ = false;  // set on the loop's thread
  std::unique_ptr<Opening> opening_;

  // The loop's alone.
  Phase phase_ = Phase::kHello;
  std::unique_ptr<IoTimer> refusal_;
  std::shared_ptr<SessionRunner> session_;
  std::unordered_map<std::uint64_t, IncomingPacket> incoming_;

  std::mutex calls_mutex_;  // guards what follows
  OpenCalls calls_;
  std::size_t living_calls_ = 0;  // with those that were cancelled and are still held
  std::size_t input_size_ = 0;    // of the packets of living calls and incoming packets
};

}  // namespace Platform::Ipc
