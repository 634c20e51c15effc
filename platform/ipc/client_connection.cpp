#include "platform/ipc/client_connection.h"

#include <exception>
#include <new>
#include <string>
#include <utility>

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/client_connection"};

}  // namespace

ClientConnection::ClientConnection(std::shared_ptr<ClientCore> core, IoLoop& loop,
                                   UniqueDescriptor socket, std::unique_ptr<TlsFilter> filter,
                                   const Limits& limits, std::vector<unsigned char> hello)
    : Connection(loop, std::move(socket), std::move(filter), Side::kClient, limits),
      core_(std::move(core)),
      hello_(std::move(hello)) {}

ClientConnection::~ClientConnection() {
  Wipe(hello_);
}

Common::Error ClientConnection::WaitForWelcome(Clock::time_point deadline) {
  core_->NoteBlocked();
  {
    std::unique_lock lock(calls_mutex_);
    welcomed_.wait_until(lock, deadline, [&] { return has_welcome_ || has_ended_; });
    if (has_welcome_) return Common::Error();
    if (!has_ended_) {
      lock.unlock();
      const Common::Error error =
          MakeSystemError(kConnectTimedOut, ETIMEDOUT, kSource.At("WaitForWelcome", 10));
      Close(error);
      return error;
    }
  }
  return GetEnd();
}

Common::Error ClientConnection::CheckConnected() const {
  {
    const std::lock_guard lock(calls_mutex_);
    if (!has_ended_) return Common::Error();
  }
  return MakeReasonedError(kNotConnected, GetEnd(), kSource.At("CheckConnected", 20));
}

Common::Error ClientConnection::Send(const std::shared_ptr<ClientCall>& call,
                                     OutgoingPacket packet) {
  if (packet.start.size > GetLimits().max_request_size) {
    return MakeError(kRequestTooLarge, kSource.At("Send", 30),
                     std::to_string(packet.start.size) + " bytes");
  }
  std::uint64_t id = 0;
  {
    const std::lock_guard lock(calls_mutex_);
    if (!has_ended_) {
      if (call->IsCancelled()) return MakeError(kCancelled, kSource.At("Send", 35));
      if (calls_.size() >= GetLimits().max_calls) {
        return MakeError(kTooManyCalls, kSource.At("Send", 40));
      }
      id = ++last_call_id_;
      call->SetId(id);
      calls_.emplace(id, call);
    }
  }
  if (id == 0) return CheckConnected();
  packet.start.call_id = id;
  Sending sending = Sending::kGone;
  Common::Error error;
  try {
    sending = SendPacket(std::move(packet));
  } catch (const std::bad_alloc&) {
    error = Common::Error::OutOfMemory();
  }
  if (sending == Sending::kSent) {
    // A cancel that came before the packet was to be sent has found nothing to drop, and has told
    // the server of a call that it didn't know yet.
    if (call->IsCancelled() && Find(id) == nullptr) CancelSent(id);
    return Common::Error();
  }
  if (sending == Sending::kFull) error = MakeError(kOutputFull, kSource.At("Send", 50));
  // The connection is about to end, and may have told the call already.
  if (Take(id) == nullptr) return Common::Error();
  if (!error.IsFailure()) {
    error = MakeReasonedError(kNotConnected, GetEnd(), kSource.At("Send", 60));
  }
  return error;
}

void ClientConnection::Cancel(ClientCall& call, const Common::Error& error) {
  std::uint64_t id = 0;
  {
    const std::lock_guard lock(calls_mutex_);
    id = call.GetId();
  }
  Abandon(id, error);
}

void ClientConnection::Abandon(std::uint64_t call_id, const Common::Error& error) {
  const std::shared_ptr<ClientCall> call = Take(call_id);
  if (call == nullptr) return;
  CancelSent(call_id);
  call->End(error);
}

void ClientConnection::CancelSent(std::uint64_t call_id) {
  try {
    if (DropPacket(call_id)) SendMessage(FrameKind::kCancel, call_id);
  } catch (const std::bad_alloc&) {
    // The server answers for nothing then.
  }
}

std::shared_ptr<ClientCall> ClientConnection::Find(std::uint64_t call_id) const {
  const std::lock_guard lock(calls_mutex_);
  const auto found = calls_.find(call_id);
  return found != calls_.end() ? found->second : nullptr;
}

std::shared_ptr<ClientCall> ClientConnection::Take(std::uint64_t call_id) {
  const std::lock_guard lock(calls_mutex_);
  const auto found = calls_.find(call_id);
  if (found == calls_.end()) return nullptr;
  std::shared_ptr<ClientCall> call = std::move(found->second);
  calls_.erase(found);
  return call;
}

void ClientConnection::OnReady() {
  SendMessage(FrameKind::kHello, 0, std::move(hello_), true);
  hello_.clear();
}

bool ClientConnection::EndUnexpected(std::uint32_t line) {
  End(MakeError(kUnexpectedFrame, kSource.At("EndUnexpected", line)), true);
  return false;
}

bool ClientConnection::OnFrame(FrameKind kind, std::uint64_t call_id, Bytes payload) {
  if (!IsWelcomed()) {
    if (kind == FrameKind::kWelcome) return TakeWelcome(payload);
    if (kind != FrameKind::kRefused) return EndUnexpected(70);
    End(DecodeError(payload, MakeError(kConnectRefused, kSource.At("OnFrame", 80))), false);
    return false;
  }
  if (kind != FrameKind::kFault) return EndUnexpected(90);
  const std::shared_ptr<ClientCall> call = Take(call_id);
  if (call != nullptr) {
    call->End(DecodeError(payload, MakeError(kNoAnswer, kSource.At("OnFrame", 100))));
  }
  return true;
}

bool ClientConnection::TakeWelcome(Bytes payload) {
  Welcome welcome;
  if (!DecodeWelcome(payload, welcome) || welcome.connection_key == 0) {
    End(MakeError(kMalformedFrame, kSource.At("TakeWelcome", 110), "Welcome"), true);
    return false;
  }
  if (welcome.version != kTransportVersion) {
    End(MakeError(kVersionMismatch, kSource.At("TakeWelcome", 120)), true);
    return false;
  }
  SetWelcomed();
  const std::lock_guard lock(calls_mutex_);
  welcome_ = std::move(welcome);
  has_welcome_ = true;
  welcomed_.notify_all();
  return true;
}

bool ClientConnection::OnPacketStart(const PacketStart& start) {
  if (!IsWelcomed()) return EndUnexpected(130);
  const std::shared_ptr<ClientCall> call = Find(start.call_id);
  if (call == nullptr) return true;
  if (call->HasBegunReply()) return EndUnexpected(140);
  if (start.size > GetLimits().max_reply_size) {
    Abandon(start.call_id, MakeError(kReplyTooLarge, kSource.At("OnPacketStart", 150),
                                     std::to_string(start.size) + " bytes"));
    return true;
  }
  try {
    call->BeginReply(start.size);
  } catch (const std::bad_alloc&) {
    Abandon(start.call_id, Common::Error::OutOfMemory());
    return true;
  }
  if (start.size == 0 && Take(start.call_id) != nullptr) call->End(Common::Error());
  return true;
}

bool ClientConnection::OnPacketBytes(std::uint64_t call_id, Bytes bytes) {
  if (!IsWelcomed()) return EndUnexpected(160);
  const std::shared_ptr<ClientCall> call = Find(call_id);
  if (call == nullptr) return true;
  if (!call->HasBegunReply()) return EndUnexpected(170);
  try {
    if (!call->AppendReply(bytes)) {
      End(MakeError(kMalformedFrame, kSource.At("OnPacketBytes", 180), "reply beyond its size"),
          true);
      return false;
    }
  } catch (const std::bad_alloc&) {
    Abandon(call_id, Common::Error::OutOfMemory());
    return true;
  }
  if (call->IsReplyComplete() && Take(call_id) != nullptr) call->End(Common::Error());
  return true;
}

void ClientConnection::OnEnd(const Common::Error& error) {
  std::unordered_map<std::uint64_t, std::shared_ptr<ClientCall>> calls;
  {
    const std::lock_guard lock(calls_mutex_);
    has_ended_ = true;
    calls.swap(calls_);
    welcomed_.notify_all();
  }
  for (const auto& [id, call] : calls) call->End(error);
  core_->Forget(*this);
}

}  // namespace Platform::Ipc
