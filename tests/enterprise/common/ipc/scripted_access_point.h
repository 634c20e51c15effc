#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "core/common/error.h"
#include "enterprise/common/ipc/client_library.h"
#include "enterprise/common/ipc/request_impl.h"
#include "tests/enterprise/serialize/packet_support.h"

namespace Binding {

// A connection whose service answers as the test says. Writes down what happens to it.
class ScriptedAccessPoint final : public AccessPoint {
 public:
  Common::Error CreateJob(std::unique_ptr<Request> request,
                          std::unique_ptr<JobManagement::Job>& job) override {
    if (request == nullptr) return Common::Error(0x77, Common::LineTag{});
    if (!create_error.IsFailure()) job = std::make_unique<Job>(*this, std::move(request));
    events += "create ";
    return create_error;
  }
  std::uint32_t GetConnectionKey() override { return 0; }
  Common::Error GetInterfaceVersion(std::uint32_t, std::uint32_t&, std::uint32_t&) override {
    return Common::Error();
  }

  Common::Error create_error;
  Common::Error run_error;
  std::string reply;         // elements of the next reply
  std::string asked;         // elements of the last request
  std::string asked_method;  // "COMPONENT NUMBER SINCE VERSION CATEGORY"
  std::string events;

 private:
  class Job final : public JobManagement::Job {
   public:
    Job(ScriptedAccessPoint& owner, std::unique_ptr<Request> request)
        : owner_(owner), request_(std::move(request)) {}
    ~Job() override { owner_.events += "~job "; }

    Common::Error Run(JobManagement::JobHandler* handler) override {
      EXPECT_EQ(handler, nullptr);
      owner_.events += "run ";
      owner_.asked = Serialization::Packets::WriteElements(
          [&](Serialization::Serializer& to) { request_->Serialize(to); });
      const auto* const base = Common::QueryInterface<Detail::RequestBase>(*request_);
      owner_.asked_method = std::to_string(request_->GetComponentId()) + ' ' +
                            std::to_string(request_->GetMethodNumber()) + ' ' +
                            std::to_string(base->GetMethodInfo().since_version) + ' ' +
                            std::to_string(request_->GetInterfaceVersion()) + ' ' +
                            std::to_string(request_->GetCategory());
      if (owner_.run_error.IsFailure()) return owner_.run_error;
      request_->ReadReply(*Serialization::Packets::OpenElements(owner_.reply));
      return Common::Error();
    }
    Common::Error Start(JobManagement::JobHandler*) override { return Common::Error(); }
    Common::Error Cancel() override { return Common::Error(); }

   private:
    ScriptedAccessPoint& owner_;
    const std::unique_ptr<Request> request_;
  };
};

}  // namespace Binding
