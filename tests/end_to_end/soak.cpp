#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/end_to_end/history.h"
#include "tests/end_to_end/stage.h"

// A store that changes all the time, two services that serve it, and clients that come and go:
//
//   the lasting service   HUB, both ways of the new generation, from the beginning to the end
//   the mortal one        VLT, of either generation, killed or ended and started again
//
// Clients listen and report, are ended, killed and suspended. Everything that each of them has
// printed must be true (History::Check), its end as it should be, and the lasting service as lean
// at the end as near the beginning.
//
// end_to_end_soak [SECONDS [SEED]]; scripts/soak

namespace EndToEnd {

int soak_seconds = 10;
unsigned int soak_seed = 0;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kClients = kIsSanitized ? 4 : 8;
// The service that serves the clients of a computer with two busy processors answers in no time,
// but the sanitizers' programs do not.
constexpr milliseconds kSoon{kIsSanitized ? 20'000 : 5'000};

struct Client {
  std::unique_ptr<RunningProgram> program;
  bool is_listening = true;  // or reports
  bool is_of_mortal = false;
  bool has_lost = false;   // its service, behind its first event
  bool is_unsure = false;  // whether it has found a service, and which one
  bool is_suspended = false;
  Clock::time_point until;  // when something happens to it, or when it goes on
};

class Soak : public testing::Test {
 protected:
  Soak() : random_(soak_seed) {
    stage_.Store({"create", store_});
    history_ = std::make_unique<History>(store_);
  }

  std::size_t Below(std::size_t limit) { return random_() % limit; }
  Clock::time_point In(std::size_t most_milliseconds) {
    return Clock::now() + milliseconds(Below(most_milliseconds));
  }

  void StartMortal() {
    mortal_way_ = {true, Below(2) == 0 ? 1 : 2};
    mortal_ = stage_.Serve({"VLT=" + store_}, mortal_way_);
    mortal_until_ = In(10'000);
  }
  void EndMortal() {
    const bool is_killed = Below(2) == 0;
    mortal_->GetProgram().Signal(is_killed ? SIGKILL : SIGTERM);
    EXPECT_EQ(mortal_->GetProgram().Wait(), is_killed ? 1000 + SIGKILL : 0)
        << mortal_->GetProgram().GetErrors();
    mortal_port_ = mortal_->GetPort();
    mortal_.reset();
    mortal_until_ = In(1'000);
    for (const auto& client : clients_) {
      if (!client->is_of_mortal) continue;
      (HasBegun(*client) && !client->is_unsure ? client->has_lost : client->is_unsure) = true;
    }
  }

  static bool HasBegun(Client& client) {
    return client.program->IsRunning() && client.program->GetOutput().starts_with('<');
  }

  void StartClient() {
    auto client = std::make_unique<Client>();
    client->is_of_mortal = Below(2) == 0;
    client->is_listening = Below(5) != 0;
    client->is_unsure = client->is_of_mortal && mortal_ == nullptr;
    const bool is_remote = Below(3) == 0;
    const int port =
        client->is_of_mortal ? (mortal_ ? mortal_->GetPort() : mortal_port_) : lasting_->GetPort();
    const Words address = {
        is_remote ? "127.0.0.1:" + std::to_string(port) : std::string("localhost"), kUser,
        kPassword};
    Words query = {client->is_of_mortal ? "VLT" : "HUB", "Thing"};
    if (!client->is_listening) query.push_back("report");
    client->program = stage_.Start(address, query);
    client->until = In(8'000);
    clients_.push_back(std::move(client));
  }

  // What a client has printed, judged when it has ended with `status`.
  void Judge(Client& client, int status, History::Extent extent) {
    std::string rest = client.program->GetOutput();
    const std::vector<Event> events = TakeEvents(rest);
    events_ += events.size();
    if (!events.empty()) {
      EXPECT_EQ(history_->Check(events, extent), "") << "seed " << soak_seed;
    }
    if (status >= 1000) return;
    EXPECT_EQ(rest.empty(), status == 0) << rest;
    EXPECT_TRUE(rest.empty() || rest.starts_with("Error 0x")) << rest;
    EXPECT_EQ(client.program->GetErrors(), "");
  }

  // Ends a listen by its character.
  void EndListen(Client& client, History::Extent extent) {
    if (client.has_lost) {
      // It knows a little later; then it waits all the same.
      EXPECT_TRUE(Await([&] { return !IsConnected(client.program->GetId()); }));
      EXPECT_TRUE(client.program->IsRunning());
    }
    const auto typed = Clock::now();
    client.program->Type("x");
    const int status = client.program->Wait();
    const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - typed);
    slowest_end_ = std::max(slowest_end_, took);
    EXPECT_LT(took, kSoon) << "seed " << soak_seed;
    if (!client.is_unsure) {
      EXPECT_EQ(status, client.has_lost ? 7 : 0) << client.program->GetOutput();
    }
    Judge(client, status, extent);
  }

  // True when the client has gone.
  bool StepClient(Client& client) {
    if (client.is_suspended) {
      if (Clock::now() < client.until) return false;
      client.program->Signal(SIGCONT);
      client.is_suspended = false;
      client.until = In(8'000);
      return false;
    }
    if (!client.is_listening && !client.program->IsRunning()) {
      const int status = client.program->Wait();
      if (!client.is_of_mortal) {
        EXPECT_EQ(status, 0) << client.program->GetOutput();
      }
      Judge(client, status, History::Extent::kFrom);
      return true;
    }
    if (Clock::now() < client.until) return false;
    switch (Below(4)) {
      case 0:
        client.program->Signal(SIGSTOP);
        client.is_suspended = true;
        client.until = In(1'000);
        return false;
      case 1:
        client.program->Kill();
        Judge(client, 1000 + SIGKILL, History::Extent::kPart);
        return true;
      default:
        if (!client.is_listening) return false;
        EndListen(client, History::Extent::kFrom);
        return true;
    }
  }

  void StepClients() {
    std::erase_if(clients_, [&](const auto& client) { return StepClient(*client); });
  }

  const Stage stage_;
  const std::string store_ = stage_ / "hub.db";
  std::mt19937 random_;
  std::unique_ptr<History> history_;
  std::unique_ptr<Service> lasting_;
  std::unique_ptr<Service> mortal_;
  Way mortal_way_;
  std::uint16_t mortal_port_ = 1;
  Clock::time_point mortal_until_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::size_t events_ = 0;
  milliseconds slowest_end_{0};
};

TEST_F(Soak, EverythingPrintedIsTrueAndNothingIsLeftBehind) {
  std::cout << "seed " << soak_seed << ", " << soak_seconds << " s" << std::endl;
  lasting_ = stage_.Serve({"HUB=" + store_}, {true, 2});
  const pid_t lasting = lasting_->GetProgram().GetId();
  const int descriptors = CountDescriptors(lasting) + kFollowerDescriptors;
  StartMortal();

  const auto begin = Clock::now();
  const auto end = begin + std::chrono::seconds(soak_seconds);
  auto next_look = begin;
  std::vector<long> memory;  // of the lasting service, each second
  long most_threads = 0;
  while (Clock::now() < end && !HasFailure()) {
    for (std::size_t count = Below(4); count != 0; --count) history_->Change(random_);
    if (clients_.size() < kClients && Below(4) == 0) StartClient();
    StepClients();
    if (Clock::now() >= mortal_until_) mortal_ == nullptr ? StartMortal() : EndMortal();
    if (Clock::now() >= next_look) {
      next_look += std::chrono::seconds(1);
      memory.push_back(GetResidentKilobytes(lasting));
      most_threads = std::max(most_threads, CountThreads(lasting));
    }
    if (Below(3) != 0) std::this_thread::sleep_for(std::chrono::microseconds(Below(8'000)));
  }

  ASSERT_FALSE(memory.empty());  // else it has failed before

  // Those that are left see everything to the end.
  for (const auto& client : clients_) {
    if (client->is_suspended) client->program->Signal(SIGCONT);
    client->is_suspended = false;
    if (!client->is_listening) client->until = Clock::now() + kPatience;
  }
  EXPECT_TRUE(Await([&] {
    std::erase_if(clients_,
                  [&](const auto& client) { return !client->is_listening && StepClient(*client); });
    return std::all_of(clients_.begin(), clients_.end(), [&](const auto& client) {
      if (!client->is_listening) return false;
      if (client->has_lost || client->is_unsure) return true;
      std::string text = client->program->GetOutput();
      return history_->HasSeenAll(TakeEvents(text));
    });
  })) << "seed "
      << soak_seed;
  for (const auto& client : clients_) {
    const bool is_whole = !client->has_lost && !client->is_unsure;
    EndListen(*client, is_whole ? History::Extent::kAll : History::Extent::kFrom);
  }
  clients_.clear();

  EXPECT_TRUE(Await([&] { return CountDescriptors(lasting) == descriptors; }))
      << CountDescriptors(lasting) << " descriptors, not " << descriptors;
  EXPECT_EQ(lasting_->CountInLog(": connected"), lasting_->CountInLog(": disconnected"));
  const long last_memory = GetResidentKilobytes(lasting);
  // The first quarter is its youth.
  const auto quarter = static_cast<std::ptrdiff_t>(memory.size() / 4);
  const long young = *std::max_element(memory.begin(), memory.begin() + quarter + 1);
  const long old = *std::max_element(memory.end() - quarter - 1, memory.end());
  if (!kIsSanitized) {
    EXPECT_LT(old, young + young / 4 + 32 * 1024);
  }
  for (Service* const service : {lasting_.get(), mortal_.get()}) {
    if (service == nullptr) continue;
    service->GetProgram().Signal(SIGTERM);
    EXPECT_EQ(service->GetProgram().Wait(), 0) << service->GetProgram().GetErrors();
  }
  EXPECT_FALSE(std::filesystem::exists(stage_.GetRuntimeDirectory() + "/service-33.sock"));

  std::cout << history_->GetSize() << " changes, " << events_ << " events checked, "
            << "memory of the lasting service " << young / 1024 << " MiB young, " << old / 1024
            << " MiB old, " << last_memory / 1024 << " MiB at the end, " << most_threads
            << " threads at most, slowest end of a listen " << slowest_end_.count() << " ms\n";
}

}  // namespace
}  // namespace EndToEnd

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc > 1) EndToEnd::soak_seconds = std::atoi(argv[1]);
  if (EndToEnd::soak_seconds <= 0) {
    std::cerr << "usage: end_to_end_soak [SECONDS [SEED]], of one second at least\n";
    return 2;
  }
  EndToEnd::soak_seed =
      argc > 2 ? static_cast<unsigned int>(std::atoll(argv[2])) : std::random_device()();
  return RUN_ALL_TESTS();
}
