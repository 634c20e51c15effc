#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <utility>

#include "core/common/error.h"
#include "enterprise/common/dml/client/remoting.h"
#include "enterprise/common/dml/read_actions.h"
#include "enterprise/common/dml/synchronous_data_store.h"
#include "enterprise/common/por/unit_factory.h"
#include "platform/ipc/client.h"
#include "platform/ipc/ipc_codes.h"
#include "tests/end_to_end/history.h"
#include "tests/end_to_end/stage.h"

// A service that hangs, and keeps its connections open.

namespace EndToEnd {
namespace {

constexpr unsigned int kHubServiceId = 33;

class CountingReader final : public Dml::ReportReader {
 public:
  void Read(const Por::View::Unit&) override { ++count; }
  int count = 0;
};

class StoppedService : public testing::Test {
 protected:
  void SetUp() override {
    stage_.Store({"create", store_});
    stage_.Put(store_, MakeThing(1, 1));
    service_ = stage_.Serve({"HUB=" + store_}, Way());
  }

  const Stage stage_;
  const std::string store_ = stage_ / "hub.db";
  std::unique_ptr<Service> service_;
};

TEST_F(StoppedService, IsGivenUpInAReport) {
  Platform::Ipc::ClientOptions options;
  options.limits.heartbeat = std::chrono::milliseconds(500);
  options.limits.idle = std::chrono::milliseconds(2500);
  options.runtime_directory = stage_.GetRuntimeDirectory();
  const auto client = Platform::Ipc::Client::Create(options);
  Common::Error error;
  std::unique_ptr<Binding::AccessPoint> access_point;
  error = client->GetLocalBrowser(error)->Connect(kHubServiceId, 0, access_point, {});
  ASSERT_FALSE(error.IsFailure());
  const auto office = Dml::Client::CreateRemoteViewProvider(std::move(access_point));
  Por::Construction::InMemoryUnitFactory factory;
  Dml::SynchronousDataStore store(office.get(), &factory);
  CountingReader reader;
  store.Report(Core::EntryPoint(), Dml::ViewSpec(), reader);
  EXPECT_EQ(reader.count, 1);

  service_->GetProgram().Signal(SIGSTOP);
  const auto begin = std::chrono::steady_clock::now();
  try {
    store.Report(Core::EntryPoint(), Dml::ViewSpec(), reader);
    ADD_FAILURE() << "Nothing was thrown.";
  } catch (const Common::Error& failure) {
    EXPECT_EQ(failure.GetCode(), Platform::Ipc::kPeerSilent.code);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  EXPECT_EQ(reader.count, 1);
  service_->GetProgram().Signal(SIGCONT);
  // It finds the client gone.
  EXPECT_TRUE(Await([&] { return service_->CountInLog(": disconnected") == 1; }));
}

TEST_F(StoppedService, IsGivenUpByWhoWantsToConnect) {
  service_->GetProgram().Signal(SIGSTOP);
  const auto begin = std::chrono::steady_clock::now();
  const ProgramResult result =
      stage_.Run(stage_.Address(*service_, Way()), {"HUB", "Thing", "report"});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
  EXPECT_EQ(result.status, 3);
  EXPECT_NE(result.out.find("| error 0xad0113: The service did not answer in time to connect."),
            std::string::npos)
      << result.out;
}

}  // namespace
}  // namespace EndToEnd
