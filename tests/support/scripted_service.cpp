#include "tests/support/scripted_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "enterprise/common/dml_view_common/view_record_formats.h"
#include "enterprise/common/ipc/request_impl.h"
#include "enterprise/common/ipc/utils.h"
#include "enterprise/common/por/serialization/unit_serializer.h"
#include "tests/enterprise/serialize/packet_support.h"

namespace TestSupport {

namespace {

using Binding::WriteElement;
using Serialization::Serializer;
using Serialization::Packets::WriteElements;

constexpr std::chrono::seconds kPatience{10};

class PostedWork final : public Platform::PoolTask {
 public:
  explicit PostedWork(std::function<void()> work) : work_(std::move(work)) {}
  void Run() override { work_(); }

 private:
  const std::function<void()> work_;
};

}  // namespace

ServiceCall::ServiceCall(std::unique_ptr<Binding::Request> request)
    : request_(std::move(request)),
      method_(Common::QueryInterface<Binding::Detail::RequestBase>(*request_)
                  ->GetMethodInfo()
                  .method_name),
      asked_(WriteElements([&](Serializer& to) { request_->Serialize(to); })) {}

Por::SharedUnit ServiceCall::GetUnit(std::initializer_list<const char*> path) const {
  const auto from = Serialization::Packets::OpenElements(asked_);
  from->BeginElement(Serialization::MetaInfo("request_ViewManager_" + method_));
  for (const char* const name : path) from->BeginElement(Serialization::MetaInfo(name));
  Por::SharedUnit unit;
  Por::Serialization::ReadUnit(*from, unit);
  return unit;
}

bool ServiceCall::Reply(const std::string& results, const Common::Error& result) {
  std::string elements("<reply_ViewManager_");
  elements.append(method_).append(">");
  elements.append(
      WriteElements([&](Serializer& to) { to.Write(Serialization::MetaInfo("result"), result); }));
  elements.append(results).append("</reply_ViewManager_").append(method_).append(">");
  return ReplyElements(elements, result);
}

bool ServiceCall::ReplyElements(const std::string& elements, const Common::Error& result) {
  if (!Claim()) return false;
  Common::Error end = result;
  try {
    request_->ReadReply(*Serialization::Packets::OpenElements(elements));
  } catch (const Common::Error& error) {
    end = error;
  }
  End(end);
  return true;
}

bool ServiceCall::Fail(const Common::Error& error) {
  if (!Claim()) return false;
  End(error);
  return true;
}

bool ServiceCall::IsCanceled() const {
  const std::lock_guard lock(mutex_);
  return canceled_;
}

bool ServiceCall::HasEnded() const {
  const std::lock_guard lock(mutex_);
  return ended_;
}

void ServiceCall::SetHandler(JobManagement::JobHandler* handler) {
  const std::lock_guard lock(mutex_);
  handler_ = handler;
}

void ServiceCall::SetCanceled() {
  const std::lock_guard lock(mutex_);
  canceled_ = true;
}

bool ServiceCall::Claim() {
  const std::lock_guard lock(mutex_);
  return !std::exchange(claimed_, true);
}

void ServiceCall::End(const Common::Error& result) {
  JobManagement::JobHandler* handler = nullptr;
  {
    const std::lock_guard lock(mutex_);
    handler = handler_;
    result_ = result;
    ended_ = true;
    changed_.notify_all();
  }
  if (handler == nullptr) return;
  if (result.IsFailure()) {
    handler->OnFailure(result);
  } else {
    handler->OnSuccess();
  }
  handler->OnFinished();
}

Common::Error ServiceCall::Wait() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return ended_; });
  return result_;
}

class ScriptedJob final : public JobManagement::Job {
 public:
  ScriptedJob(ScriptedService& service, std::unique_ptr<Binding::Request> request)
      : service_(service), call_(std::make_shared<ServiceCall>(std::move(request))) {}
  ~ScriptedJob() override {
    EXPECT_TRUE(!started_ || call_->HasEnded()) << "a job is deleted before its end";
  }

  Common::Error Run(JobManagement::JobHandler*) override {
    started_ = true;
    const ServiceCallPtr call = call_;
    service_.Begin(call);
    return call->Wait();
  }
  Common::Error Start(JobManagement::JobHandler* handler) override {
    if (service_.start_error.IsFailure()) return service_.start_error;
    started_ = true;
    call_->SetHandler(handler);
    // The job may be gone when the call has begun.
    const ServiceCallPtr call = call_;
    service_.Begin(call);
    return {};
  }
  Common::Error Cancel() override {
    EXPECT_TRUE(started_) << "a job is cancelled before its start";
    const ServiceCallPtr call = call_;
    call->SetCanceled();
    const auto end = [call] { call->Fail({kTransportCanceled, Common::LineTag{}}); };
    switch (service_.canceling) {
      case ScriptedService::Canceling::kOnThread:
        service_.Post(end);
        break;
      case ScriptedService::Canceling::kInside:
        end();
        break;
      case ScriptedService::Canceling::kNever:
        break;
    }
    return {};
  }

 private:
  ScriptedService& service_;
  const ServiceCallPtr call_;
  bool started_ = false;
};

class ScriptedAccessPoint final : public Binding::AccessPoint {
 public:
  explicit ScriptedAccessPoint(ScriptedService& service) : service_(service) {}

  Common::Error CreateJob(std::unique_ptr<Binding::Request> request,
                          std::unique_ptr<JobManagement::Job>& job) override {
    if (service_.in_create) service_.in_create();
    if (request == nullptr) return {0xAD01FE, Common::LineTag{}};
    if (service_.create_error.IsFailure()) return service_.create_error;
    if (!service_.creates_nothing) {
      job = std::make_unique<ScriptedJob>(service_, std::move(request));
    }
    return {};
  }
  std::uint32_t GetConnectionKey() override { return service_.connection_key; }
  Common::Error GetInterfaceVersion(std::uint32_t component_id, std::uint32_t& version,
                                    std::uint32_t&) override {
    EXPECT_EQ(component_id, 271u);
    version = service_.interface_version;
    return service_.version_error;
  }

 private:
  ScriptedService& service_;
};

ScriptedService::~ScriptedService() {
  pool_.Stop();
}

std::unique_ptr<Binding::AccessPoint> ScriptedService::Connect() {
  return std::make_unique<ScriptedAccessPoint>(*this);
}

void ScriptedService::On(const std::string& method, Script script) {
  const std::lock_guard lock(mutex_);
  scripts_[method] = std::move(script);
}

void ScriptedService::Answer(const std::string& method, const std::string& results,
                             const Common::Error& result) {
  On(method, [=](const ServiceCallPtr& call) { call->Reply(results, result); });
}

void ScriptedService::AnswerFarewells() {
  for (const char* const method : {"CloseView", "RemoveInterest", "Unsubscribe"}) Answer(method);
}

void ScriptedService::Post(std::function<void()> work) {
  pool_.Post(std::make_shared<PostedWork>(std::move(work)));
}

void ScriptedService::Begin(const ServiceCallPtr& call) {
  Script script;
  {
    const std::lock_guard lock(mutex_);
    log_.push_back(call->GetMethod());
    const auto found = scripts_.find(call->GetMethod());
    if (found != scripts_.end()) {
      script = found->second;
    } else {
      waiting_[call->GetMethod()].push_back(call);
    }
    changed_.notify_all();
  }
  if (script) script(call);
}

ServiceCallPtr ScriptedService::Next(const std::string& method) {
  std::unique_lock lock(mutex_);
  std::deque<ServiceCallPtr>& calls = waiting_[method];
  if (!changed_.wait_for(lock, kPatience, [&] { return !calls.empty(); })) {
    throw std::runtime_error("no call of " + method);
  }
  const ServiceCallPtr call = calls.front();
  calls.pop_front();
  return call;
}

std::string ScriptedService::GetLog() const {
  const std::lock_guard lock(mutex_);
  std::string log;
  for (const std::string& method : log_) log.append(method).append(" ");
  return log;
}

int ScriptedService::Count(const std::string& method) const {
  const std::lock_guard lock(mutex_);
  return static_cast<int>(std::count(log_.begin(), log_.end(), method));
}

void ScriptedService::AwaitCount(const std::string& method, int count) {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, kPatience,
                         [&] { return std::count(log_.begin(), log_.end(), method) >= count; })) {
    throw std::runtime_error("too few calls of " + method);
  }
}

std::string SubscribeResults(unsigned int transmission) {
  const Dml::ViewManagement::Subscription subscription{transmission};
  return WriteElements([&](Serializer& to) { WriteElement(to, "subscription", subscription); });
}

std::string AddInterestResults(unsigned int transmission, unsigned int channel,
                               const std::vector<Por::SharedUnit>& snapshot) {
  const Dml::ViewManagement::Topic topic{{transmission, channel}, snapshot};
  return WriteElements([&](Serializer& to) { WriteElement(to, "topic", topic); });
}

std::string ReadSubscriptionResults(const std::vector<Dml::ViewManagement::ViewUpdate>& updates) {
  const Dml::ViewManagement::SubscriptionContent content{updates};
  return WriteElements([&](Serializer& to) { WriteElement(to, "updates", content); });
}

std::string AcquireUpdatesResults(const std::vector<Dml::ViewManagement::ViewUpdate>& updates) {
  return WriteElements([&](Serializer& to) { WriteElement(to, "updates", updates); });
}

std::string OpenViewResults(const std::vector<Por::SharedUnit>& snapshot, unsigned int view_id) {
  return WriteElements([&](Serializer& to) {
    if (view_id != 0) WriteElement(to, "viewID", view_id);
    WriteElement(to, "snapshot", snapshot);
  });
}

}  // namespace TestSupport
