#include "platform/ipc/server_connection.h"

#include <algorithm>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "core/common/trace.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/server_connection"};

// What is reserved on the word of a size field alone.
constexpr std::size_t kMaxPromised = std::size_t{1} << 20;

// A service has no reason to throw. What it throws all the same is traced and told as an error.
// Needs no memory of its own.
template <class Function>
Common::Error Guard(Function&& function) noexcept {
  Common::Error error;
  try {
    function();
    return error;
  } catch (const Common::Error& failure) {
    error = failure;
  } catch (const std::bad_alloc&) {
    error = Common::Error::OutOfMemory();
  } catch (const std::exception& failure) {
    const Common::LineTag tag = kSource.At("Guard", 10);
    error = MakeError(kNoResources, tag);
    error.SetReason(Common::Error(kSystemReason.code, failure.what(), tag));
  } catch (...) {
    error = MakeError(kNoResources, kSource.At("Guard", 20));
  }
  Common::Trace(Common::kTraceError, error);
  return error;
}

}  // namespace

// The call that a service has in hand.
class ConnectionCall final : public ServerCall {
 public:
  ConnectionCall(std::shared_ptr<ServerConnection> connection, const PacketStart& start,
                 std::vector<unsigned char> packet)
      : connection_(std::move(connection)), start_(start), packet_(std::move(packet)) {}
  ~ConnectionCall() override {
    if (state_ == State::kIsOpen) {
      connection_->Fail(start_.call_id, MakeError(kNoAnswer, kSource.At("~ConnectionCall", 30)));
    }
    if (state_ != State::kIsAnswered) connection_->Release(packet_.size());
  }

  std::uint32_t GetComponentId() const override { return start_.component_id; }
  std::uint32_t GetMethodNumber() const override { return start_.method_number; }
  const std::vector<unsigned char>& GetPacket() const override { return packet_; }

  void Reply(std::vector<unsigned char> packet) override {
    const auto owner = std::make_shared<const std::vector<unsigned char>>(std::move(packet));
    ReplyShared(owner, owner->data(), owner->size());
  }
  bool ReplyShared(std::shared_ptr<const void> owner, const unsigned char* packet,
                   std::size_t size) noexcept override {
    return BeginAnswer() && connection_->Reply(start_.call_id, std::move(owner), packet, size);
  }
  void Fail(const Common::Error& error) noexcept override {
    if (BeginAnswer()) connection_->Fail(start_.call_id, error);
  }

  void SetCancelCallback(std::function<void()> callback) override {
    {
      const std::lock_guard lock(mutex_);
      if (state_ == State::kIsOpen) callback_.swap(callback);
      if (state_ != State::kIsCancelled) return;
    }
    callback();
  }

  // Behind this nothing is answered.
  void MarkCancelled() {
    const std::lock_guard lock(mutex_);
    if (state_ == State::kIsOpen) state_ = State::kIsCancelled;
  }
  // The same, and tells the service, once. On the pool.
  void Cancel() {
    MarkCancelled();
    std::function<void()> callback;
    {
      const std::lock_guard lock(mutex_);
      callback.swap(callback_);
    }
    if (callback) Guard(callback);
  }

 private:
  enum class State { kIsOpen, kIsAnswered, kIsCancelled };

  bool BeginAnswer() {
    std::function<void()> dropped;  // outside the lock
    {
      const std::lock_guard lock(mutex_);
      if (state_ != State::kIsOpen) return false;
      state_ = State::kIsAnswered;
      dropped.swap(callback_);
    }
    // Before the answer goes, so that the client may make its next call on it.
    connection_->Release(packet_.size());
    return true;
  }

  const std::shared_ptr<ServerConnection> connection_;
  const PacketStart start_;
  const std::vector<unsigned char> packet_;

  std::mutex mutex_;  // guards what follows
  State state_ = State::kIsOpen;
  std::function<void()> callback_;
};

// Tells a service that a call was cancelled, while the session is entered.
class CancelRunner final : public DeliveryTask {
 public:
  CancelRunner(std::shared_ptr<ConnectionCall> call, std::shared_ptr<SessionRunner> session)
      : call_(std::move(call)), session_(std::move(session)) {}
  void Run() override {
    call_->Cancel();
    session_->Leave();
  }

 private:
  const std::shared_ptr<ConnectionCall> call_;
  const std::shared_ptr<SessionRunner> session_;
};

void SessionRunner::Call(std::shared_ptr<ServerCall> call) {
  {
    const std::lock_guard lock(mutex_);
    if (is_closed_) return;
    ++running_;
  }
  // Of one that throws the call is dropped, and answered by that.
  Guard([&] { session_->OnCall(std::move(call)); });
  Leave();
}

void SessionRunner::Enter() {
  const std::lock_guard lock(mutex_);
  ++running_;
}

void SessionRunner::Leave() {
  {
    const std::lock_guard lock(mutex_);
    if (--running_ != 0 || !is_closed_) return;
  }
  Finish();
}

void SessionRunner::Run() {
  for (const auto& [id, weak] : open_) {
    if (const std::shared_ptr<ConnectionCall> call = weak.lock()) call->Cancel();
  }
  open_.clear();
  {
    const std::lock_guard lock(mutex_);
    is_closed_ = true;
    if (running_ != 0) return;
  }
  Finish();
}

void SessionRunner::Finish() {
  Guard([&] { session_->OnClosed(); });
  session_.reset();
}

ServerConnection::ServerConnection(ServerCore& core, IoLoop& loop, UniqueDescriptor socket,
                                   std::unique_ptr<TlsFilter> filter, Origin origin,
                                   const Limits& limits)
    : Connection(loop, std::move(socket), std::move(filter), Side::kServer, limits),
      core_(core),
      origin_(std::move(origin)) {}

bool ServerConnection::EndMalformed(const IpcFailure& failure, const char* detail,
                                    std::uint32_t line) {
  End(MakeError(failure, kSource.At("EndMalformed", line), detail), true);
  return false;
}

bool ServerConnection::OnFrame(FrameKind kind, std::uint64_t call_id, Bytes payload) {
  if (kind == FrameKind::kHello && phase_ == Phase::kHello) return TakeHello(payload);
  if (kind == FrameKind::kCancel && phase_ == Phase::kOpen) {
    TakeCancel(call_id);
    return true;
  }
  return EndMalformed(kUnexpectedFrame, "", 40);
}

bool ServerConnection::Refuse(const Common::Error& error) {
  Finish(FrameKind::kRefused, error);
  return false;
}

bool ServerConnection::TakeHello(Bytes payload) {
  auto opening = std::make_unique<Opening>();
  const Hello& hello = opening->hello;
  if (!DecodeHello(payload, opening->hello)) return EndMalformed(kMalformedFrame, "Hello", 50);
  if (hello.lowest_version > kTransportVersion || hello.highest_version < kTransportVersion) {
    return Refuse(MakeError(kVersionMismatch, kSource.At("TakeHello", 60)));
  }
  if (origin_.is_local) {
    if (!origin_.is_admitted) return Refuse(MakeError(kNotAdmitted, kSource.At("TakeHello", 70)));
    if (!hello.user.Get().empty() || !hello.password.Get().empty()) {
      return EndMalformed(kMalformedFrame, "credentials on a local socket", 80);
    }
    if (hello.service_id != origin_.service_id) {
      return Refuse(MakeError(kUnknownService, kSource.At("TakeHello", 90),
                              std::to_string(hello.service_id)));
    }
  }
  phase_ = Phase::kOpening;
  opening_ = std::move(opening);
  core_.PostOpening(std::static_pointer_cast<ServerConnection>(shared_from_this()));
  return true;
}

void ServerConnection::RunOpening() {
  if (has_ended_) return;
  Opening& opening = *opening_;
  const Common::Error raised = Guard([&] { OpenSession(opening); });
  if (raised.IsFailure()) opening.error = raised;
  const std::shared_ptr<SessionRunner> session = opening.session;
  bool is_posted = false;
  try {
    const auto self = std::static_pointer_cast<ServerConnection>(shared_from_this());
    is_posted = GetLoop().Post([self] { self->FinishOpening(); });
  } catch (const std::bad_alloc&) {
    // The connection ends by its time for the handshake.
  }
  if (is_posted || session == nullptr) return;
  session->Run();
  core_.Leave();
}

void ServerConnection::OpenSession(Opening& opening) {
  Peer peer = origin_.peer;
  if (!origin_.is_local) {
    // Whatever the reason is: the time doesn't tell it.
    opening.refuse_at = Clock::now() + GetLimits().refusal;
    peer.user = opening.hello.user.Get();
    const bool is_right =
        core_.GetHost().Authenticate(peer.user, opening.hello.password.Get(), peer.address);
    opening.hello.password.Wipe();
    if (!is_right) {
      opening.error = MakeError(kWrongPassword, kSource.At("OpenSession", 110));
      return;
    }
    opening.refuse_at = Clock::time_point();
  }
  const auto session = std::make_shared<SessionRunner>();
  if (!core_.Enter()) {
    opening.error = MakeError(kTooManyConnections, kSource.At("OpenSession", 115));
    return;
  }
  const Common::Error raised = Guard([&] {
    std::unique_ptr<Session> opened =
        core_.GetHost().Open(opening.hello.service_id, peer, opening.interfaces, opening.error);
    if (opened == nullptr) return;
    session->SetSession(std::move(opened));
    opening.session = session;
  });
  if (opening.session != nullptr) return;
  core_.Leave();
  if (raised.IsFailure()) {
    opening.error = raised;
  } else if (!opening.error.IsFailure()) {
    opening.error = MakeError(kUnknownService, kSource.At("OpenSession", 120),
                              std::to_string(opening.hello.service_id));
  }
}

void ServerConnection::FinishOpening() {
  const std::unique_ptr<Opening> opening = std::move(opening_);
  if (has_ended_) {
    if (opening->session == nullptr) return;
    core_.Leave();
    core_.GetDelivery().Post(std::move(opening->session));
    return;
  }
  session_ = std::move(opening->session);
  try {
    if (session_ == nullptr) {
      RefuseLater(opening->refuse_at, opening->error);
    } else {
      SendWelcome(std::move(opening->interfaces));
    }
  } catch (const std::exception&) {
    End(Common::Error::OutOfMemory(), false);
  }
}

// Who guesses passwords waits, and nobody for that one.
void ServerConnection::RefuseLater(Clock::time_point time, const Common::Error& error) {
  const Clock::time_point now = Clock::now();
  if (time <= now) {
    Refuse(error);
    return;
  }
  const auto self = std::static_pointer_cast<ServerConnection>(shared_from_this());
  refusal_ = GetLoop().CreateTimer();
  refusal_->Wait(time - now, [self, error] { self->Refuse(error); });
}

void ServerConnection::SendWelcome(std::vector<InterfaceVersion> interfaces) {
  Welcome welcome;
  welcome.connection_key = core_.MakeConnectionKey();
  welcome.interfaces = std::move(interfaces);
  std::vector<unsigned char> payload = EncodeWelcome(welcome);
  if (payload.size() > kMaxMessageFrame) {
    Refuse(MakeError(kFrameTooLong, kSource.At("SendWelcome", 220), "Welcome"));
    return;
  }
  phase_ = Phase::kOpen;
  SetWelcomed();
  core_.NoteWelcomed(*this);
  SendMessage(FrameKind::kWelcome, 0, std::move(payload));
}

bool ServerConnection::OnPacketStart(const PacketStart& start) {
  if (phase_ != Phase::kOpen) return EndMalformed(kUnexpectedFrame, "Request", 130);
  Common::Error error;
  {
    const std::lock_guard lock(calls_mutex_);
    const Limits& limits = GetLimits();
    if (calls_.contains(start.call_id) || incoming_.contains(start.call_id)) {
      error = MakeError(kMalformedFrame, kSource.At("OnPacketStart", 140), "call id in use");
    } else if (start.size > limits.max_request_size) {
      error = MakeError(kRequestTooLarge, kSource.At("OnPacketStart", 150),
                        std::to_string(start.size) + " bytes");
    } else if (calls_.size() + incoming_.size() >= limits.max_calls ||
               living_calls_ + incoming_.size() >= 2 * limits.max_calls) {
      error = MakeError(kTooManyCalls, kSource.At("OnPacketStart", 160));
    } else if (start.size > limits.max_input || input_size_ > limits.max_input - start.size) {
      error = MakeError(kInputFull, kSource.At("OnPacketStart", 170));
    } else {
      input_size_ += static_cast<std::size_t>(start.size);
    }
  }
  if (error.GetCode() == kMalformedFrame.code) {
    End(error, true);
    return false;
  }
  if (error.IsFailure()) {
    SendMessage(FrameKind::kFault, start.call_id, EncodeError(error));
    return true;
  }
  IncomingPacket packet{start, {}};
  if (start.size == 0) return Dispatch(std::move(packet));
  packet.data.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(start.size, kMaxPromised)));
  incoming_.emplace(start.call_id, std::move(packet));
  return true;
}

bool ServerConnection::OnPacketBytes(std::uint64_t call_id, Bytes bytes) {
  if (phase_ != Phase::kOpen) return EndMalformed(kUnexpectedFrame, "RequestPart", 180);
  const auto found = incoming_.find(call_id);
  if (found == incoming_.end()) return true;  // refused, or cancelled
  IncomingPacket& packet = found->second;
  if (bytes.size() > packet.start.size - packet.data.size()) {
    return EndMalformed(kMalformedFrame, "request beyond its size", 190);
  }
  packet.data.insert(packet.data.end(), bytes.begin(), bytes.end());
  if (packet.data.size() < packet.start.size) return true;
  IncomingPacket whole = std::move(packet);
  incoming_.erase(found);
  return Dispatch(std::move(whole));
}

bool ServerConnection::Dispatch(IncomingPacket packet) {
  const auto self = std::static_pointer_cast<ServerConnection>(shared_from_this());
  auto call = std::make_shared<ConnectionCall>(self, packet.start, std::move(packet.data));
  {
    const std::lock_guard lock(calls_mutex_);
    calls_.emplace(packet.start.call_id, call);
    ++living_calls_;
  }
  // The task lives a little longer than its run, so it hands its reference on.
  core_.GetDelivery().Post(
      [session = session_, call = std::make_shared<std::shared_ptr<ConnectionCall>>(
                               std::move(call))] { session->Call(std::move(*call)); });
  return true;
}

bool ServerConnection::Take(std::uint64_t call_id) {
  const std::lock_guard lock(calls_mutex_);
  return calls_.erase(call_id) != 0;
}

void ServerConnection::TakeCancel(std::uint64_t call_id) {
  const auto found = incoming_.find(call_id);
  if (found != incoming_.end()) {
    const std::size_t size = static_cast<std::size_t>(found->second.start.size);
    incoming_.erase(found);
    const std::lock_guard lock(calls_mutex_);
    input_size_ -= size;
    return;
  }
  DropPacket(call_id);
  std::shared_ptr<ConnectionCall> call;
  {
    const std::lock_guard lock(calls_mutex_);
    const auto open = calls_.find(call_id);
    if (open == calls_.end()) return;
    call = open->second.lock();
  }
  if (call != nullptr) {
    // The call stays open as long as this may fail: otherwise the connection's end tells it.
    auto runner = std::make_shared<CancelRunner>(call, session_);
    // From here on, as the client may use the id for its next call, which must not get the answer
    // of this one.
    call->MarkCancelled();
    session_->Enter();
    core_.GetDelivery().Post(std::move(runner));
  }
  Take(call_id);
}

bool ServerConnection::Reply(std::uint64_t call_id, std::shared_ptr<const void> owner,
                             const unsigned char* packet, std::size_t size) noexcept {
  if (!Take(call_id)) return false;
  bool is_sent = false;
  Answer([&] {
    Common::Error error;
    if (size <= GetLimits().max_reply_size) {
      OutgoingPacket outgoing;
      outgoing.start.call_id = call_id;
      outgoing.start.size = size;
      outgoing.data = packet;
      outgoing.owner = std::move(owner);
      is_sent = SendPacket(std::move(outgoing)) != Sending::kFull;
      if (is_sent) return;
      error = MakeError(kOutputFull, kSource.At("Reply", 210));
    } else {
      error = MakeError(kReplyTooLarge, kSource.At("Reply", 200), std::to_string(size) + " bytes");
    }
    SendMessage(FrameKind::kFault, call_id, EncodeError(error));
  });
  return is_sent;
}

void ServerConnection::Fail(std::uint64_t call_id, const Common::Error& error) noexcept {
  if (!Take(call_id)) return;
  Answer([&] { SendMessage(FrameKind::kFault, call_id, EncodeError(error)); });
}

template <class Send>
void ServerConnection::Answer(Send&& send) noexcept {
  const Common::Error error = Guard(send);
  if (!error.IsFailure()) return;
  try {
    Close(error);
  } catch (const std::exception&) {
    FailSending(error);
  }
}

void ServerConnection::Release(std::size_t size) {
  const std::lock_guard lock(calls_mutex_);
  --living_calls_;
  input_size_ -= size;
}

void ServerConnection::OnEnd(const Common::Error& error) {
  Common::Trace(Common::kTraceDebug, error);
  has_ended_ = true;
  refusal_.reset();
  incoming_.clear();
  OpenCalls open;
  {
    const std::lock_guard lock(calls_mutex_);
    open.swap(calls_);
  }
  if (session_ != nullptr) {
    session_->SetOpenCalls(std::move(open));
    core_.GetDelivery().Post(std::move(session_));
    core_.Leave();
  }
  core_.Forget(*this);
}

}  // namespace Platform::Ipc
