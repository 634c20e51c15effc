#include "tests/platform/ipc/ipc_test_support.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "enterprise/serialize/element_scope.h"
#include "enterprise/serialize/xml_serializer.h"

namespace Platform::Ipc::Test {

namespace {

constexpr Common::SourceFile kSource{"tests/platform/ipc/ipc_test_support"};
constexpr std::chrono::seconds kLongTime{30};

Binding::MethodInfo MakeMethod(std::uint32_t method) {
  Binding::MethodInfo info;
  info.component_id = kComponent;
  info.method_number = method;
  info.interface_name = "Test";
  info.method_name = "Text";
  return info;
}

std::string ReadText(const std::vector<unsigned char>& packet) {
  const auto reader = Serialization::CreateXMLPacketDeserializer(packet.data(), packet.size(), 0);
  std::string text;
  const Serialization::ElementReader envelope(*reader,
                                              Serialization::MetaInfo("request_Test_Text"));
  reader->Read(Serialization::MetaInfo("text"), text);
  return text;
}

std::vector<unsigned char> MakeReply(const Common::Error& result, const std::string& text) {
  const auto writer = Serialization::CreateXMLPacketSerializer(0);
  {
    const Serialization::ElementWriter envelope(*writer,
                                                Serialization::MetaInfo("reply_Test_Text"));
    writer->Write(Serialization::MetaInfo("result"), result);
    writer->Write(Serialization::MetaInfo("text"), text);
  }
  std::vector<unsigned char> packet;
  writer->Finish(packet);
  return packet;
}

}  // namespace

TextRequest::TextRequest(std::uint32_t method, std::string text, std::string* reply)
    : RequestBase(MakeMethod(method)), text_(std::move(text)), reply_(reply) {}

void TextRequest::WriteArguments(Serialization::Serializer& serializer) const {
  if (text_ == "throw error") throw Common::Error(kResultCode, kSource.At("WriteArguments", 10));
  if (text_ == "throw") throw std::runtime_error("no");
  serializer.Write(Serialization::MetaInfo("text"), text_);
}

void TextRequest::ReadResults(Serialization::Deserializer& deserializer) {
  if (text_ == "throw at reading") throw std::runtime_error("no");
  if (reply_ != nullptr) deserializer.Read(Serialization::MetaInfo("text"), *reply_);
}

class TestSession final : public Session {
 public:
  explicit TestSession(TestHost& host) : host_(host) {}
  ~TestSession() override { host_.Count(host_.destroyed); }

  void OnCall(std::shared_ptr<ServerCall> call) override {
    // A call that waits counts when it does.
    if (call->GetMethodNumber() != kWaiting) host_.Count(host_.calls);
    EXPECT_EQ(call->GetComponentId(), kComponent);
    const std::string text = ReadText(call->GetPacket());
    switch (call->GetMethodNumber()) {
      case kEcho:
        call->Reply(MakeReply(Common::Error(), text));
        call->Reply(MakeReply(Common::Error(), "a second answer"));
        break;
      case kFailing:
        call->Reply(MakeReply(Common::Error(kResultCode, kSource.At("OnCall", 20)), text));
        break;
      case kWaiting: {
        {
          const std::lock_guard lock(host_.mutex);
          host_.waiting_.push_back(call);
        }
        call->SetCancelCallback([this] {
          host_.Count(host_.cancelled);
          std::unique_lock lock(host_.mutex);
          host_.change.wait(lock, [this] { return !host_.holds_cancels; });
        });
        host_.Count(host_.waits);
        host_.Count(host_.calls);
        break;
      }
      case kLong:
        call->Reply(MakeReply(Common::Error(), std::string(std::stoul(text), 'x')));
        break;
      case kFault:
        call->Fail(Common::Error(kFaultCode, kSource.At("OnCall", 30)));
        break;
      case kDropping:
        break;
      case kGarbage:
        call->Reply({1, 2, 3});
        break;
      case kEmpty:
        call->Reply({});
        break;
      default:
        throw std::runtime_error("no such method");
    }
  }
  void OnClosed() override { host_.Count(host_.closed); }

 private:
  TestHost& host_;
};

TestHost::~TestHost() {
  EXPECT_EQ(opened, closed);
  EXPECT_EQ(opened, destroyed);
}

bool TestHost::Authenticate(const std::string& user, const std::string& password,
                            const std::string& address) {
  EXPECT_TRUE(address.starts_with("127.0.0.1:")) << address;
  std::unique_lock lock(mutex);
  ++logins;
  change.notify_all();
  change.wait(lock, [&] { return !holds_logins; });
  return user == "J\xC3\xBCrgen" && password == "secret";
}

std::unique_ptr<Session> TestHost::Open(unsigned int service_id, const Peer& peer,
                                        std::vector<InterfaceVersion>& interfaces,
                                        Common::Error& error) {
  if (service_id != kServiceId) return nullptr;
  error = refusal;
  if (error.IsFailure()) return nullptr;
  interfaces = {{kComponent, 2, 7}, {274, 1, 0}};
  {
    const std::lock_guard lock(mutex);
    last_peer = peer;
  }
  Count(opened);
  return std::make_unique<TestSession>(*this);
}

void TestHost::Count(int& counter) {
  const std::lock_guard lock(mutex);
  ++counter;
  change.notify_all();
}

void TestHost::Release() {
  std::vector<std::shared_ptr<ServerCall>> waiting;
  {
    const std::lock_guard lock(mutex);
    waiting.swap(waiting_);
  }
  for (const auto& call : waiting) call->Reply(MakeReply(Common::Error(), "released"));
}

void TestHost::LetGo() {
  const std::lock_guard lock(mutex);
  holds_logins = false;
  holds_cancels = false;
  change.notify_all();
}

bool TestHost::WaitFor(const int& counter, int value) {
  std::unique_lock lock(mutex);
  return change.wait_for(lock, kLongTime, [&] { return counter >= value; });
}

int TestHost::Read(const int& counter) {
  const std::lock_guard lock(mutex);
  return counter;
}

void WaitingJobHandler::OnFinished() {
  if (at_end) at_end();
  const std::lock_guard lock(mutex_);
  ++ends_;
  change_.notify_all();
}

Common::Error WaitingJobHandler::Wait() {
  std::unique_lock lock(mutex_);
  if (!change_.wait_for(lock, kLongTime, [&] { return ends_ != 0; })) {
    return Common::Error(1, kSource.At("Wait", 40));
  }
  return error_;
}

bool WaitingJobHandler::HasEnded() {
  const std::lock_guard lock(mutex_);
  return ends_ != 0;
}

bool WaitingJobHandler::IsTold() {
  const std::lock_guard lock(mutex_);
  return outcomes_ == 1 && ends_ == 1 && cancels_ == 0;
}

Limits MakeQuickLimits() {
  Limits limits;
  limits.handshake = std::chrono::milliseconds(300);
  limits.heartbeat = std::chrono::milliseconds(50);
  limits.idle = std::chrono::milliseconds(400);
  return limits;
}

Common::Error ConnectLocally(Client& client, std::unique_ptr<Binding::AccessPoint>& access_point,
                             unsigned int service_id) {
  Common::Error error;
  const auto browser = client.GetLocalBrowser(error);
  if (browser == nullptr) return error;
  return browser->Connect(service_id, 0, access_point, {});
}

LocalPair::LocalPair(const Limits& server_limits, const Limits& client_limits) {
  ::setenv("VELORIN_IPC_DIR", folder.GetPath().c_str(), 1);
  server = Server::Create(host, server_limits);
  server->ListenLocal(kServiceId);
  ClientOptions options;
  options.limits = client_limits;
  client = Client::Create(options);
}

LocalPair::~LocalPair() {
  client.reset();
  host.Release();
  server.reset();
}

std::string LocalPair::GetSocket() const {
  return folder / ("service-" + std::to_string(kServiceId) + ".sock");
}

std::uint32_t LocalPair::TryToConnect(unsigned int service_id) {
  std::unique_ptr<Binding::AccessPoint> access_point;
  return ConnectLocally(*client, access_point, service_id).GetCode();
}

std::unique_ptr<Binding::AccessPoint> LocalPair::Connect() {
  std::unique_ptr<Binding::AccessPoint> access_point;
  const Common::Error error = ConnectLocally(*client, access_point);
  if (error.IsFailure()) {
    throw std::runtime_error("no connection: " + std::to_string(error.GetCode()));
  }
  return access_point;
}

StartedCall::StartedCall(Binding::AccessPoint& access_point, Method method, const std::string& text,
                         std::function<void()> at_end)
    : job(MakeJob(access_point, method, text, &reply)) {
  handler.at_end = std::move(at_end);
  EXPECT_EQ(job->Start(&handler).GetCode(), 0u);
}

std::unique_ptr<JobManagement::Job> MakeJob(Binding::AccessPoint& access_point, Method method,
                                            const std::string& text, std::string* reply) {
  std::unique_ptr<JobManagement::Job> job;
  const Common::Error error =
      access_point.CreateJob(std::make_unique<TextRequest>(method, text, reply), job);
  EXPECT_FALSE(error.IsFailure()) << error.GetCode();
  return job;
}

Common::Error Call(Binding::AccessPoint& access_point, Method method, const std::string& text,
                   std::string* reply) {
  std::unique_ptr<JobManagement::Job> job;
  const Common::Error error =
      access_point.CreateJob(std::make_unique<TextRequest>(method, text, reply), job);
  return error.IsFailure() ? error : job->Run(nullptr);
}

}  // namespace Platform::Ipc::Test
