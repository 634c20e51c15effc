#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "core/common/error.h"
#include "platform/ipc/frame.h"
#include "platform/ipc/io_loop.h"
#include "platform/ipc/local_socket.h"
#include "platform/ipc/server.h"
#include "platform/ipc/tls.h"
#include "platform/ipc/unique_descriptor.h"

namespace Platform::Ipc {

// A packet on its way out.
struct OutgoingPacket {
  PacketStart start;                  // `size` is that of the data
  std::shared_ptr<const void> owner;  // of the data
  const unsigned char* data = nullptr;
  std::size_t sent = 0;
  bool has_begun = false;
};

// What both ends do with a connection: frames in and out over a socket and perhaps TLS, heartbeat,
// time limits, and one end of it all. Made shared; the loop keeps it as long as it is open.
//
// Hooks run on the loop's thread, without a lock, and must not block. Everything else: any thread.
// Who sends writes to the socket itself as far as that takes it; the loop does the rest.
class Connection : public FrameSink, public std::enable_shared_from_this<Connection> {
 public:
  // Begins. Once.
  void Open();
  // Ends the connection soon: sends Goodbye with `reason`, as far as that goes at once. The first
  // end counts.
  void Close(const Common::Error& reason);
  // Why the connection has ended or is about to; success as long as it isn't. Set before OnEnd is
  // called.
  Common::Error GetEnd() const;

 protected:
  // `side`: which one this is. `filter` is null without TLS.
  Connection(IoLoop& loop, UniqueDescriptor socket, std::unique_ptr<TlsFilter> filter, Side side,
             const Limits& limits);

  // What sending has come to: kFull and kGone have sent nothing.
  enum class Sending { kSent, kFull, kGone };
  Sending SendPacket(OutgoingPacket packet);
  // `payload` is wiped when `is_secret`.
  void SendMessage(FrameKind kind, std::uint64_t call_id, std::vector<unsigned char> payload = {},
                   bool is_secret = false);
  // Something that the peer waits for can't be sent: the connection ends, without a Goodbye, at the
  // latest when the time limits are looked at. Needs no memory.
  void FailSending(const Common::Error& error) noexcept;
  // Drops what waits of a packet. Whether its first part has gone out.
  bool DropPacket(std::uint64_t call_id);
  // On the loop's thread: sends the message, then ends the connection when the peer has closed its
  // side or some seconds have passed. Nothing that comes is looked at any more.
  void Finish(FrameKind kind, const Common::Error& error);
  // On the loop's thread: ends the connection now.
  void End(const Common::Error& error, bool tells_peer);
  // On the loop's thread: the handshake is over; until then silence isn't looked at and an end is
  // kClosedEarly.
  void SetWelcomed() { is_welcomed_ = true; }
  bool IsWelcomed() const { return is_welcomed_; }

  const Limits& GetLimits() const { return limits_; }
  IoLoop& GetLoop() { return loop_; }
  int GetDescriptor() const { return socket_.Get(); }  // in OnReady

  // Frames may be sent. Once.
  virtual void OnReady() = 0;
  // Frames that this class has no use for. False: stop reading, the connection has ended.
  virtual bool OnFrame(FrameKind kind, std::uint64_t call_id, Bytes payload) = 0;
  // Now and then, as long as the connection is open.
  virtual void OnTick() noexcept {}
  // The connection has ended. Once, the last of the hooks.
  virtual void OnEnd(const Common::Error& error) = 0;

 private:
  // Bytes on their way into the socket; the next ones are made when these are gone.
  struct Wire {
    std::array<unsigned char, kMaxHeadSize> head{};
    std::size_t head_at = 0;
    std::size_t head_size = 0;
    Bytes body;
    std::shared_ptr<const void> owner;

    bool IsEmpty() const { return head_at == head_size && body.empty(); }
  };

  bool OnMessage(FrameKind kind, std::uint64_t call_id, Bytes payload) final;

  // On the loop's thread.
  void Do(void (Connection::*step)());  // a failure to allocate in it ends the connection
  void Begin();
  void Read();
  bool Take(Bytes bytes);  // false: ended
  bool TakeEncrypted(Bytes bytes);
  void WaitReadable();
  void WaitWritable();
  void WriteOn();
  void WaitTick();
  void Tick();
  void CheckWrites();  // after a failure to write
  Common::Error MakeLostError(int errnum, const Common::LineTag& tag) const;

  // With the lock held.
  void Pump();  // does not throw: a failure to allocate is one to write
  void Write();
  bool FillWire();
  bool FillPlainWire(Wire& wire);
  bool Encrypt(const Wire& plain);
  void AppendMessage(FrameKind kind, std::uint64_t call_id, Bytes payload);
  void FailWriting(const Common::Error& error);

  IoLoop& loop_;
  const Side side_;
  const Limits limits_;
  const bool has_filter_;

  std::atomic<bool> is_welcomed_ = false;

  // The loop's alone.
  std::unique_ptr<IoWatch> watch_;
  std::unique_ptr<IoTimer> timer_;
  FrameDecoder decoder_;
  bool has_ended_ = false;
  Clock::time_point began_;
  Clock::time_point last_received_;
  bool has_pinged_ = false;
  Clock::time_point finish_by_;
  std::vector<unsigned char> decrypted_;

  mutable std::mutex mutex_;  // guards what follows
  UniqueDescriptor socket_;   // closed on the loop's thread
  std::unique_ptr<TlsFilter> filter_;
  bool is_encrypting_ = false;  // the filter's handshake is over
  bool is_open_ = true;         // takes something to send
  bool is_finishing_ = false;
  bool has_shut_down_ = false;
  Common::Error end_;
  Common::Error write_error_;
  bool waits_writable_ = false;
  Clock::time_point blocked_since_;
  bool owes_pong_ = false;
  bool owes_ping_ = false;
  std::vector<unsigned char> messages_;
  bool has_secret_ = false;  // in `messages_`
  std::vector<unsigned char> messages_on_wire_;
  std::vector<unsigned char> encrypted_;
  std::deque<OutgoingPacket> packets_;
  std::size_t waiting_size_ = 0;  // of the packets
  Wire wire_;
};

}  // namespace Platform::Ipc
