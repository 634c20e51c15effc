#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/ipc/client_call.h"
#include "platform/ipc/connection.h"

namespace Platform::Ipc {

// What a connection needs of its client. Threads: any.
class ClientCore : public Common::NonCopyable {
 public:
  virtual ~ClientCore() = default;
  // A call begins; false: the client has been stopped. Each one that began ends.
  virtual bool BeginCall() = 0;
  virtual void EndCall() = 0;
  // Has the call run on the pool, at once or as soon as the pool can. Never fails.
  virtual void Deliver(std::shared_ptr<ClientCall> call) = 0;
  // Sees to it that calls are delivered that have found no thread or no memory. To be called now
  // and then.
  virtual void EnsureDelivery() noexcept = 0;
  // The calling thread is about to wait.
  virtual void NoteBlocked() = 0;
  // The connection has ended.
  virtual void Forget(Connection& connection) = 0;
};

// The client's end of a connection: Hello, and the calls that are open.
class ClientConnection final : public Connection {
 public:
  // `core` owns the loop.
  ClientConnection(std::shared_ptr<ClientCore> core, IoLoop& loop, UniqueDescriptor socket,
                   std::unique_ptr<TlsFilter> filter, const Limits& limits,
                   std::vector<unsigned char> hello);
  ~ClientConnection() override;

  // Waits for the end of the handshake; a failure has ended the connection, or is going to.
  Common::Error WaitForWelcome(Clock::time_point deadline);

  // Behind the handshake.
  std::uint32_t GetConnectionKey() const { return welcome_.connection_key; }
  const std::vector<InterfaceVersion>& GetInterfaces() const { return welcome_.interfaces; }
  // Success, or kNotConnected with the reason of the end.
  Common::Error CheckConnected() const;

  // Opens the call and sends its packet, unless it was cancelled before. A failure: the call isn't
  // open, and is told nothing.
  Common::Error Send(const std::shared_ptr<ClientCall>& call, OutgoingPacket packet);
  // Ends the call if it is open.
  void Cancel(ClientCall& call, const Common::Error& error);

  const std::shared_ptr<ClientCore>& GetCore() const { return core_; }
  std::chrono::milliseconds GetAnswerTime() const { return GetLimits().answer; }

 private:
  void OnReady() override;
  void OnTick() noexcept override { core_->EnsureDelivery(); }
  bool OnFrame(FrameKind kind, std::uint64_t call_id, Bytes payload) override;
  bool OnPacketStart(const PacketStart& start) override;
  bool OnPacketBytes(std::uint64_t call_id, Bytes bytes) override;
  void OnEnd(const Common::Error& error) override;

  bool TakeWelcome(Bytes payload);
  bool EndUnexpected(std::uint32_t line);
  std::shared_ptr<ClientCall> Find(std::uint64_t call_id) const;
  // Who takes a call out of the open ones tells it its end.
  std::shared_ptr<ClientCall> Take(std::uint64_t call_id);
  // Ends a call that is open on the server, too.
  void Abandon(std::uint64_t call_id, const Common::Error& error);
  // Takes back what was sent of a call, or tells the server.
  void CancelSent(std::uint64_t call_id);

  const std::shared_ptr<ClientCore> core_;
  std::vector<unsigned char> hello_;  // wiped when it was sent
  Welcome welcome_;

  mutable std::mutex calls_mutex_;  // guards what follows
  std::condition_variable welcomed_;
  bool has_welcome_ = false;
  bool has_ended_ = false;
  std::uint64_t last_call_id_ = 0;
  std::unordered_map<std::uint64_t, std::shared_ptr<ClientCall>> calls_;
};

}  // namespace Platform::Ipc
