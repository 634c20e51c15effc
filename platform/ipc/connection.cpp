#include "platform/ipc/connection.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/connection"};

// Reads in a row before other connections have their turn.
constexpr int kMaxReads = 16;
constexpr std::size_t kDecryptedSize = std::size_t{64} << 10;
// Messages that wait for one peer: who sends what is answered by so many doesn't read.
constexpr std::size_t kMaxMessages = std::size_t{1} << 20;
constexpr std::chrono::seconds kFinishTime{2};

// How often the time limits are looked at.
Clock::duration GetTickTime(const Limits& limits) {
  const Clock::duration shortest = std::min({limits.handshake, limits.heartbeat, limits.idle});
  return std::clamp<Clock::duration>(shortest / 4, std::chrono::milliseconds(5),
                                     std::chrono::seconds(5));
}

}  // namespace

Connection::Connection(IoLoop& loop, UniqueDescriptor socket, std::unique_ptr<TlsFilter> filter,
                       Side side, const Limits& limits)
    : loop_(loop),
      side_(side),
      limits_(limits),
      has_filter_(filter != nullptr),
      decoder_(side == Side::kClient ? Side::kServer : Side::kClient),
      socket_(std::move(socket)),
      filter_(std::move(filter)) {}

void Connection::Open() {
  const std::shared_ptr<Connection> self = shared_from_this();
  if (loop_.IsOwnThread()) {
    Do(&Connection::Begin);
  } else {
    loop_.Post([self] { self->Do(&Connection::Begin); });
  }
}

void Connection::Do(void (Connection::*step)()) {
  if (has_ended_) return;
  try {
    (this->*step)();
  } catch (const std::bad_alloc&) {
    End(Common::Error::OutOfMemory(), false);
  } catch (const std::exception& failure) {
    End(MakeReasonedError(kNoResources, failure.what(), kSource.At("Do", 10)), false);
  }
}

void Connection::Close(const Common::Error& reason) {
  const std::shared_ptr<Connection> self = shared_from_this();
  loop_.Post([self, reason] { self->End(reason, true); });
}

Common::Error Connection::GetEnd() const {
  const std::lock_guard lock(mutex_);
  // A failure to write is the end, which the loop's thread is about to make of it.
  return end_.IsFailure() ? end_ : write_error_;
}

void Connection::Begin() {
  began_ = last_received_ = Clock::now();
  watch_ = loop_.CreateWatch(socket_.Get());
  timer_ = loop_.CreateTimer();
  WaitReadable();
  WaitTick();
  if (has_filter_) {
    TakeEncrypted({});  // the client begins
  } else {
    OnReady();
  }
}

void Connection::WaitReadable() {
  watch_->WaitReadable([self = shared_from_this()] { self->Do(&Connection::Read); });
}

void Connection::WaitTick() {
  timer_->Wait(GetTickTime(limits_), [self = shared_from_this()] { self->Do(&Connection::Tick); });
}

void Connection::Read() {
  const std::span<unsigned char> scratch = loop_.GetScratch();
  for (int reads = 0; reads < kMaxReads; ++reads) {
    const ssize_t size = ::recv(socket_.Get(), scratch.data(), scratch.size(), MSG_DONTWAIT);
    if (size == 0) {
      End(MakeLostError(0, kSource.At("Read", 20)), false);
      return;
    }
    if (size < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) break;
      End(MakeLostError(errno, kSource.At("Read", 30)), false);
      return;
    }
    last_received_ = Clock::now();
    has_pinged_ = false;
    const Bytes bytes = scratch.first(static_cast<std::size_t>(size));
    if (!(has_filter_ ? TakeEncrypted(bytes) : Take(bytes))) return;
    if (bytes.size() < scratch.size()) break;
  }
  WaitReadable();
}

bool Connection::Take(Bytes bytes) {
  if (finish_by_ != Clock::time_point()) return true;
  const Common::Error error = decoder_.Feed(bytes, *this);
  if (error.IsFailure()) End(error, true);
  return !has_ended_;
}

bool Connection::TakeEncrypted(Bytes bytes) {
  bool becomes_ready = false;
  Common::Error error;
  {
    const std::lock_guard lock(mutex_);
    if (!bytes.empty()) filter_->Feed(bytes);
    if (!is_encrypting_) {
      const TlsFilter::Step step = filter_->Handshake(error);
      becomes_ready = is_encrypting_ = step == TlsFilter::Step::kReady;
      Pump();  // what was made: also an alert
    }
  }
  if (error.IsFailure()) {
    End(error, false);
    return false;
  }
  if (becomes_ready) {
    OnReady();
    if (has_ended_) return false;
  }
  decrypted_.resize(kDecryptedSize);
  for (;;) {
    std::size_t size = 0;
    {
      const std::lock_guard lock(mutex_);
      if (!is_encrypting_) return true;
      const bool good = filter_->Read(decrypted_, size, error);
      Pump();
      if (!good && size == 0) break;
    }
    if (size == 0) return true;
    const bool goes_on = Take(Bytes(decrypted_).first(size));
    if (!is_welcomed_) Wipe(decrypted_);  // may have been a password
    if (!goes_on) return false;
  }
  End(error.IsFailure() ? error : MakeLostError(0, kSource.At("TakeEncrypted", 40)), false);
  return false;
}

Common::Error Connection::MakeLostError(int errnum, const Common::LineTag& tag) const {
  const IpcFailure& failure = is_welcomed_ ? kConnectionLost : kClosedEarly;
  return errnum != 0 ? MakeSystemError(failure, errnum, tag) : MakeError(failure, tag);
}

bool Connection::OnMessage(FrameKind kind, std::uint64_t call_id, Bytes payload) {
  switch (kind) {
    case FrameKind::kPing: {
      const std::lock_guard lock(mutex_);
      owes_pong_ = true;
      Pump();
      return true;
    }
    case FrameKind::kPong:
      return true;
    case FrameKind::kGoodbye: {
      Common::Error error = MakeLostError(0, kSource.At("OnMessage", 50));
      error.SetReason(DecodeError(payload, Common::Error()));
      End(error, false);
      return false;
    }
    default:
      return OnFrame(kind, call_id, payload);
  }
}

void Connection::Tick() {
  OnTick();
  bool has_failed = false;
  const Clock::time_point now = Clock::now();
  {
    const std::lock_guard lock(mutex_);
    has_failed = write_error_.IsFailure();
  }
  if (has_failed) {
    CheckWrites();
    return;
  }
  if (finish_by_ != Clock::time_point()) {
    if (now >= finish_by_) {
      End(MakeError(kLeft, kSource.At("Tick", 60)), false);
      return;
    }
  } else if (!is_welcomed_) {
    if (now - began_ >= limits_.handshake) {
      End(MakeSystemError(kConnectTimedOut, ETIMEDOUT, kSource.At("Tick", 70)), true);
      return;
    }
  } else if (now - last_received_ >= limits_.idle) {
    End(MakeSystemError(kPeerSilent, ETIMEDOUT, kSource.At("Tick", 80)), true);
    return;
  } else {
    bool is_stalled = false;
    {
      const std::lock_guard lock(mutex_);
      is_stalled = waits_writable_ && now - blocked_since_ >= limits_.idle;
      if (now - last_received_ >= limits_.heartbeat && !std::exchange(has_pinged_, true)) {
        owes_ping_ = true;
        Pump();
      }
    }
    if (is_stalled) {
      End(MakeSystemError(kPeerStalled, ETIMEDOUT, kSource.At("Tick", 90)), false);
      return;
    }
  }
  WaitTick();
}

Connection::Sending Connection::SendPacket(OutgoingPacket packet) {
  const std::lock_guard lock(mutex_);
  if (!is_open_ || is_finishing_ || write_error_.IsFailure()) return Sending::kGone;
  const std::size_t size = packet.start.size;
  if (size > limits_.max_output || waiting_size_ > limits_.max_output - size) return Sending::kFull;
  packets_.push_back(std::move(packet));
  waiting_size_ += size;
  Pump();
  return Sending::kSent;
}

void Connection::SendMessage(FrameKind kind, std::uint64_t call_id,
                             std::vector<unsigned char> payload, bool is_secret) {
  const Common::WipeAtEnd wipe(is_secret ? &payload : nullptr);
  const std::lock_guard lock(mutex_);
  if (!is_open_ || is_finishing_ || write_error_.IsFailure()) return;
  has_secret_ = has_secret_ || is_secret;
  AppendMessage(kind, call_id, payload);
  if (messages_.size() > kMaxMessages) {
    FailWriting(MakeError(kOutputFull, kSource.At("SendMessage", 110)));
  }
  Pump();
}

void Connection::FailSending(const Common::Error& error) noexcept {
  const std::lock_guard lock(mutex_);
  if (is_open_ && !is_finishing_) FailWriting(error);
}

bool Connection::DropPacket(std::uint64_t call_id) {
  const std::lock_guard lock(mutex_);
  for (auto at = packets_.begin(); at != packets_.end(); ++at) {
    if (at->start.call_id != call_id) continue;
    const bool has_begun = at->has_begun;
    waiting_size_ -= static_cast<std::size_t>(at->start.size) - at->sent;
    packets_.erase(at);
    return has_begun;
  }
  return true;
}

void Connection::Finish(FrameKind kind, const Common::Error& error) {
  if (has_ended_) return;
  finish_by_ = Clock::now() + kFinishTime;
  const std::lock_guard lock(mutex_);
  AppendMessage(kind, 0, EncodeError(error));
  packets_.clear();
  waiting_size_ = 0;
  is_finishing_ = true;
  Pump();
}

void Connection::End(const Common::Error& error, bool tells_peer) {
  if (std::exchange(has_ended_, true)) return;
  // Whatever holds on to this by its wait goes with the watch.
  const std::shared_ptr<Connection> self = shared_from_this();
  watch_.reset();
  timer_.reset();
  std::deque<OutgoingPacket> packets;
  UniqueDescriptor socket;
  {
    const std::lock_guard lock(mutex_);
    is_open_ = false;
    end_ = error;
    packets.swap(packets_);
    waiting_size_ = 0;
    if (tells_peer && is_welcomed_ && !is_finishing_ && !write_error_.IsFailure()) {
      // One try; a peer that doesn't read finds the connection lost.
      try {
        AppendMessage(FrameKind::kGoodbye, 0, EncodeError(error));
        waits_writable_ = false;
        Pump();
      } catch (const std::bad_alloc&) {
        // Then it goes without.
      }
    }
    waits_writable_ = true;  // no more output
    wire_ = Wire();
    if (has_secret_) Wipe(messages_);
    socket = std::move(socket_);
  }
  socket.Reset();
  OnEnd(error);
}

void Connection::FailWriting(const Common::Error& error) {
  if (write_error_.IsFailure()) return;
  write_error_ = error;
  packets_.clear();
  waiting_size_ = 0;
  if (has_secret_) Wipe(messages_);
  if (has_secret_) Wipe(messages_on_wire_);
  messages_.clear();
  wire_ = Wire();
  try {
    loop_.Post([self = shared_from_this()] { self->Do(&Connection::CheckWrites); });
  } catch (const std::bad_alloc&) {
    // The next look at the time limits finds it.
  }
}

void Connection::CheckWrites() {
  // What the peer has said before it went tells more than that it is gone.
  Common::Error error;
  bool is_finishing = false;
  {
    const std::lock_guard lock(mutex_);
    error = write_error_;
    is_finishing = is_finishing_;
  }
  for (int reads = 0; !has_ended_ && reads < kMaxReads; ++reads) {
    const std::span<unsigned char> scratch = loop_.GetScratch();
    const ssize_t size = ::recv(socket_.Get(), scratch.data(), scratch.size(), MSG_DONTWAIT);
    if (size <= 0) break;
    const Bytes bytes = scratch.first(static_cast<std::size_t>(size));
    if (!is_finishing) has_filter_ ? TakeEncrypted(bytes) : Take(bytes);
  }
  if (!has_ended_) End(error, false);
}

void Connection::WaitWritable() {
  watch_->WaitWritable([self = shared_from_this()] { self->Do(&Connection::WriteOn); });
}

void Connection::WriteOn() {
  const std::lock_guard lock(mutex_);
  waits_writable_ = false;
  Pump();
}

void Connection::Pump() {
  if (!socket_ || waits_writable_ || write_error_.IsFailure()) return;
  try {
    Write();
  } catch (const std::exception&) {
    // What was to be sent next may be lost, so nothing may follow.
    FailWriting(Common::Error::OutOfMemory());
  }
}

void Connection::Write() {
  for (;;) {
    if (wire_.IsEmpty() && !FillWire()) break;
    iovec parts[2] = {
        {wire_.head.data() + wire_.head_at, wire_.head_size - wire_.head_at},
        {const_cast<unsigned char*>(wire_.body.data()), wire_.body.size()},
    };
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t size = ::sendmsg(socket_.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) {
        FailWriting(MakeLostError(errno, kSource.At("Pump", 120)));
        return;
      }
      if (!is_open_) return;
      waits_writable_ = true;
      if (blocked_since_ == Clock::time_point()) blocked_since_ = Clock::now();
      if (loop_.IsOwnThread()) {
        WaitWritable();
      } else {
        loop_.Post([self = shared_from_this()] { self->Do(&Connection::WaitWritable); });
      }
      return;
    }
    blocked_since_ = Clock::time_point();
    std::size_t sent = static_cast<std::size_t>(size);
    const std::size_t of_head = std::min(sent, wire_.head_size - wire_.head_at);
    wire_.head_at += of_head;
    sent -= of_head;
    wire_.body = wire_.body.subspan(sent);
  }
  wire_.owner.reset();
  if (is_finishing_ && !std::exchange(has_shut_down_, true)) ::shutdown(socket_.Get(), SHUT_WR);
}

bool Connection::FillWire() {
  wire_ = Wire();
  if (!has_filter_) return FillPlainWire(wire_);
  // The wire gets nothing but what is encrypted.
  encrypted_.clear();
  filter_->TakeOutput(encrypted_);
  if (encrypted_.empty() && is_encrypting_) {
    Wire plain;
    if (FillPlainWire(plain) && !Encrypt(plain)) return false;
  }
  wire_.body = encrypted_;
  return !encrypted_.empty();
}

bool Connection::Encrypt(const Wire& plain) {
  Common::Error error;
  if (!filter_->Write(Bytes(plain.head).first(plain.head_size), error) ||
      !filter_->Write(plain.body, error)) {
    FailWriting(error);
    return false;
  }
  if (std::exchange(has_secret_, false)) Wipe(messages_on_wire_);
  filter_->TakeOutput(encrypted_);
  return true;
}

bool Connection::FillPlainWire(Wire& wire) {
  if (std::exchange(owes_pong_, false)) AppendMessage(FrameKind::kPong, 0, {});
  if (std::exchange(owes_ping_, false)) AppendMessage(FrameKind::kPing, 0, {});
  if (!messages_.empty()) {
    messages_on_wire_.clear();
    messages_on_wire_.swap(messages_);
    wire.body = messages_on_wire_;
    return true;
  }
  if (packets_.empty()) return false;
  OutgoingPacket packet = std::move(packets_.front());
  packets_.pop_front();
  const bool is_request = side_ == Side::kClient;
  FrameKind kind = is_request ? FrameKind::kRequestPart : FrameKind::kReplyPart;
  std::size_t room = kMaxPartFrame;
  if (!packet.has_begun) {
    kind = is_request ? FrameKind::kRequest : FrameKind::kReply;
    room -= is_request ? kRequestHeadSize : kReplyHeadSize;
  }
  const std::size_t left = static_cast<std::size_t>(packet.start.size) - packet.sent;
  const std::size_t part = std::min(room, left);
  wire.head_size = PutPacketHead(wire.head.data(), kind, packet.start, part);
  wire.body = {packet.data + packet.sent, part};
  wire.owner = packet.owner;
  packet.has_begun = true;
  packet.sent += part;
  waiting_size_ -= part;
  // Behind the others, so that a long packet doesn't hold up short ones.
  if (part < left) packets_.push_back(std::move(packet));
  return true;
}

void Connection::AppendMessage(FrameKind kind, std::uint64_t call_id, Bytes payload) {
  const std::size_t before = messages_.size();
  const std::size_t size = before + kFrameHeaderSize + payload.size();
  if (has_secret_ && size > messages_.capacity()) {
    // By itself it would leave the secret behind where it was.
    std::vector<unsigned char> larger;
    larger.reserve(std::max(size, 2 * before));
    larger.assign(messages_.begin(), messages_.end());
    messages_.swap(larger);
    Wipe(larger);
  }
  messages_.resize(size);
  PutFrameHead(messages_.data() + before, kind, call_id, payload.size());
  std::copy(payload.begin(), payload.end(),
            messages_.begin() + static_cast<std::ptrdiff_t>(before + kFrameHeaderSize));
}

}  // namespace Platform::Ipc
