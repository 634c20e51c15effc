#include "platform/ipc/client_call.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include "core/common/trace.h"
#include "enterprise/serialize/xml_serializer.h"
#include "platform/ipc/client_connection.h"
#include "platform/ipc/ipc_codes.h"
#include "platform/ipc/result_deserializer.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/client_call"};

// What is reserved on the word of a size field alone.
constexpr std::size_t kMaxPromised = std::size_t{16} << 20;

// Does what runs code of the request, and makes an error of whatever it throws.
template <class Function>
Common::Error Guard(Function&& function) {
  try {
    return function();
  } catch (const Common::Error& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  } catch (const std::exception& exception) {
    return MakeReasonedError(kRequestRaised, exception.what(), kSource.At("Guard", 10));
  } catch (...) {
    return MakeError(kRequestRaised, kSource.At("Guard", 20));
  }
}

// Handlers have no reason to throw. What one throws all the same is traced.
template <class Function>
void Tell(Function&& function) {
  const Common::Error error = Guard([&] {
    function();
    return Common::Error();
  });
  if (error.IsFailure()) Common::Trace(Common::kTraceError, error);
}

}  // namespace

ClientCall::ClientCall(std::shared_ptr<ClientConnection> connection,
                       std::unique_ptr<Binding::Request> request)
    : connection_(std::move(connection)), request_(std::move(request)) {}

Common::Error ClientCall::Execute() {
  Common::Error error = Send(nullptr);
  if (error.IsFailure()) return error;
  connection_->GetCore()->NoteBlocked();
  if (!WaitForEnd(Clock::now() + connection_->GetAnswerTime())) {
    // Unless a reply comes first: then that is the end. One of the two is.
    connection_->Cancel(*this, Guard([] {
      return MakeSystemError(kNotAnswered, ETIMEDOUT, kSource.At("Execute", 25));
    }));
    WaitForEnd(Clock::time_point::max());
  }
  error = Conclude();
  connection_->GetCore()->EndCall();
  return error;
}

bool ClientCall::WaitForEnd(Clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  const auto has_ended = [&] { return has_ended_; };
  if (deadline != Clock::time_point::max()) return end_.wait_until(lock, deadline, has_ended);
  end_.wait(lock, has_ended);
  return true;
}

Common::Error ClientCall::Start(JobManagement::JobHandler* handler) {
  if (handler == nullptr) return MakeError(kNullHandler, kSource.At("Start", 30));
  return Send(handler);
}

Common::Error ClientCall::Send(JobManagement::JobHandler* handler) {
  Use former = Use::kIsNew;
  if (!use_.compare_exchange_strong(former, Use::kIsStarted)) {
    return former == Use::kIsCancelled ? MakeError(kCancelled, kSource.At("Send", 40))
                                       : MakeError(kJobUsedTwice, kSource.At("Send", 50));
  }
  handler_ = handler;
  return Guard([&] {
    const std::unique_ptr<Serialization::Serializer> serializer =
        Serialization::CreateXMLPacketSerializer(
            static_cast<unsigned int>(request_->GetCategory()));
    request_->Serialize(*serializer);
    const auto packet = std::make_shared<Serialization::CountedBytes>(serializer->Finish());
    OutgoingPacket outgoing;
    outgoing.start.component_id = request_->GetComponentId();
    outgoing.start.method_number = request_->GetMethodNumber();
    outgoing.start.size = packet->size;
    outgoing.data = packet->data.get();
    outgoing.owner = packet;
    if (!connection_->GetCore()->BeginCall()) return MakeError(kNotStarted, kSource.At("Send", 60));
    // Once it is open, the end may come at any time, so nothing of this object is touched then.
    const std::shared_ptr<ClientCore> core = connection_->GetCore();
    Common::Error error =
        Guard([&] { return connection_->Send(shared_from_this(), std::move(outgoing)); });
    if (error.IsFailure()) core->EndCall();
    return error;
  });
}

void ClientCall::Cancel() {
  // One that isn't open yet is found cancelled when it is to be opened.
  if (use_.exchange(Use::kIsCancelled) != Use::kIsStarted) return;
  connection_->Cancel(*this, Guard([] { return MakeError(kCancelled, kSource.At("Cancel", 70)); }));
}

void ClientCall::BeginReply(std::uint64_t size) {
  has_begun_ = true;
  reply_size_ = size;
  reply_.Reserve(static_cast<std::size_t>(std::min<std::uint64_t>(size, kMaxPromised)));
}

bool ClientCall::AppendReply(Bytes bytes) {
  const std::size_t left = static_cast<std::size_t>(reply_size_) - reply_.GetSize();
  if (bytes.size() > left) return false;
  // All the rest at once when the first part of it doesn't fit: a large block grows by its pages.
  if (reply_.GetSize() + bytes.size() > kMaxPromised) reply_.Reserve(left);
  reply_.Append({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  return true;
}

void ClientCall::End(const Common::Error& error) {
  error_ = error;
  if (handler_ != nullptr) {
    connection_->GetCore()->Deliver(shared_from_this());
    return;
  }
  const std::lock_guard lock(mutex_);
  has_ended_ = true;
  end_.notify_one();
}

void ClientCall::Run() {
  const std::shared_ptr<ClientCore> core = connection_->GetCore();
  JobManagement::JobHandler* const handler = handler_;
  const Common::Error error = Conclude();
  Tell([&] {
    if (error.IsFailure()) {
      handler->OnFailure(error);
    } else {
      handler->OnSuccess();
    }
  });
  Tell([&] { handler->OnFinished(); });
  core->EndCall();
}

// The request goes with the end, as the variables of the caller do that it refers to.
Common::Error ClientCall::Conclude() {
  const Common::Error error = error_.IsFailure() ? error_ : Guard([&] { return ReadReply(); });
  request_.reset();
  return error;
}

Common::Error ClientCall::ReadReply() {
  std::unique_ptr<Serialization::Deserializer> reader = Serialization::CreateXMLPacketDeserializer(
      reinterpret_cast<const unsigned char*>(reply_.GetData()), reply_.GetSize(), 0);
  std::free(reply_.Release());
  ResultDeserializer result(*reader);
  request_->ReadReply(result);
  if (!result.HasResult()) return MakeError(kNoResult, kSource.At("ReadReply", 80));
  return result.GetResult();
}

}  // namespace Platform::Ipc
