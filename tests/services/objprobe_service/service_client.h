#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "enterprise/common/dml/reader.h"
#include "enterprise/common/dml_view_common/view_manager_requests.h"
#include "enterprise/common/ipc/request_impl.h"
#include "enterprise/serialize/xml_serializer.h"
#include "platform/ipc/server.h"

namespace ObjProbeService {

// A call without a transport: what the service answers, and what its client may do meanwhile.
class TestCall final : public Platform::Ipc::ServerCall {
 public:
  TestCall(std::uint32_t component, std::uint32_t method, std::vector<unsigned char> packet)
      : component_(component), method_(method), packet_(std::move(packet)) {}
  ~TestCall() override { EXPECT_TRUE(answers_ == 1 || is_gone_) << "answers: " << answers_; }

  std::uint32_t GetComponentId() const override { return component_; }
  std::uint32_t GetMethodNumber() const override { return method_; }
  const std::vector<unsigned char>& GetPacket() const override { return packet_; }

  void Reply(std::vector<unsigned char> packet) override {
    Answer([&] { reply_ = std::move(packet); });
  }
  bool ReplyShared(std::shared_ptr<const void>, const unsigned char* packet,
                   std::size_t size) override {
    if (has_no_room_) {
      Fail(Common::Error::OutOfMemory());
      return false;
    }
    return Answer([&] { reply_.emplace(packet, packet + size); });
  }
  void Fail(const Common::Error& error) override {
    Answer([&] { failure_ = error; });
  }
  void SetCancelCallback(std::function<void()> callback) override {
    bool is_gone = false;
    {
      const std::lock_guard lock(mutex_);
      EXPECT_EQ(on_cancel_, nullptr);
      is_gone = is_gone_;
      if (!is_gone && answers_ == 0) on_cancel_ = callback;
    }
    if (is_gone) callback();
  }

  // No reply goes out, but an error in its place.
  void TakeRoom() { has_no_room_ = true; }
  // The client has cancelled the call or is gone.
  void Cancel() {
    std::function<void()> callback;
    {
      const std::lock_guard lock(mutex_);
      is_gone_ = true;
      callback.swap(on_cancel_);
    }
    if (callback) callback();
  }

  bool IsAnswered() const {
    const std::lock_guard lock(mutex_);
    return answers_ != 0;
  }
  // The reply, none for an error in its place; waits for it, but not for good.
  std::optional<std::vector<unsigned char>> WaitForReply() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(answered_.wait_for(lock, std::chrono::minutes(1), [&] { return answers_ != 0; }))
        << "The call is not answered.";
    return reply_;
  }
  Common::Error GetFailure() const {
    const std::lock_guard lock(mutex_);
    return failure_;
  }

 private:
  template <class Store>
  bool Answer(Store&& store) {
    std::function<void()> dropped;
    {
      const std::lock_guard lock(mutex_);
      dropped.swap(on_cancel_);
      // The first answer counts; one that nobody takes any more may come, too.
      const bool is_first = answers_ == 0 && !is_gone_;
      if (is_first) store();
      if (!is_gone_) ++answers_;
      answered_.notify_all();
      return is_first;
    }
  }

  const std::uint32_t component_;
  const std::uint32_t method_;
  const std::vector<unsigned char> packet_;

  mutable std::mutex mutex_;
  std::condition_variable answered_;
  std::function<void()> on_cancel_;
  std::optional<std::vector<unsigned char>> reply_;
  Common::Error failure_;
  std::atomic<bool> has_no_room_{false};
  int answers_ = 0;
  bool is_gone_ = false;
};

// Finds no memory for a read.
class FailingSubscription final : public Dml::Subscription {
 public:
  std::shared_ptr<Async::Job> Read(Dml::SubscriptionReader&, Async::ActionHandler&) override {
    throw std::bad_alloc();
  }
};

// A request of a client's own builder on its way.
struct SentRequest {
  std::unique_ptr<Binding::Request> request;
  std::shared_ptr<TestCall> call;

  // Stores the results in the variables of the request. The failure of the call, or the reply's.
  Common::Error Wait() {
    const auto reply = call->WaitForReply();
    if (!reply) return call->GetFailure();
    const auto open = [&] {
      return Serialization::CreateXMLPacketDeserializer(reply->data(), reply->size(), 0);
    };
    const auto base = dynamic_cast<Binding::Detail::RequestBase*>(request.get());
    const auto reader = open();
    reader->BeginElement(Serialization::MetaInfo(
        std::string("reply_ViewManager_").append(base->GetMethodInfo().method_name)));
    Common::Error result;
    reader->Read(Serialization::MetaInfo("result", true), result);
    request->ReadReply(*open());
    return result;
  }
};

inline SentRequest MakeCall(std::unique_ptr<Binding::Request> request) {
  const auto serializer =
      Serialization::CreateXMLPacketSerializer(static_cast<unsigned int>(request->GetCategory()));
  request->Serialize(*serializer);
  std::vector<unsigned char> packet;
  serializer->Finish(packet);
  auto call = std::make_shared<TestCall>(request->GetComponentId(), request->GetMethodNumber(),
                                         std::move(packet));
  return {std::move(request), std::move(call)};
}

inline SentRequest Send(Platform::Ipc::Session& session,
                        std::unique_ptr<Binding::Request> request) {
  SentRequest sent = MakeCall(std::move(request));
  session.OnCall(sent.call);
  return sent;
}

}  // namespace ObjProbeService
