// How soon a reader that follows a store is told of a change of another process, what the following
// costs while nothing changes, and what a change of one large transaction costs to write and to
// follow; with any argument only the last. Prints "name value unit" lines.
//
// A delay counts from the return of the writer's commit to the call of the reader, so that a writer
// that takes long to get back from its commit may show one below zero.

#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/workload.h"
#include "core/common/text.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/cyclic_runner.h"
#include "enterprise/common/async/waiting_handler.h"
#include "enterprise/common/dml/local_post_office.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_value_access.h"
#include "platform/store/sqlite_store_writer.h"

namespace {

using Platform::Store::SqliteStoreWriter;

constexpr unsigned int kChanges = 300;
constexpr std::chrono::seconds kIdleTime{5};

// Shared with the writing process.
struct Times {
  double committed[kChanges];
  // Closes that left the log behind: it can't be moved while a reader looks.
  unsigned int logs_left;
};

Por::OwnedUnit MakeObject(unsigned int number) {
  const Por::Construction::UnitFactory& factory = *Por::GetStaticUnitFactory();
  Common::Guid id;
  id.SetFirst(number + 1);
  Por::OwnedUnit object = factory.CreateComposite();
  Por::Util::AddTrait(*object, "PrimaryKey", factory.CreateGuid(id), factory);
  Por::Util::AddProperty(*object, "N", factory.CreateDWord(number), factory);
  return object;
}

// The process that changes the store: by a writer for each change, or by one for all of them.
pid_t StartWriter(const std::string& path, Times& times, bool keeps_open,
                  std::chrono::microseconds pause) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  std::unique_ptr<SqliteStoreWriter> writer;
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  for (unsigned int i = 0; i < kChanges; ++i) {
    // Out of step with whatever looks regularly.
    std::this_thread::sleep_for(pause + pause * ((i * 7) % 13) / 13);
    if (writer == nullptr) writer = std::make_unique<SqliteStoreWriter>(path);
    writer->Begin();
    writer->Put(*MakeObject(i));
    writer->Commit();
    times.committed[i] = Bench::Now();
    if (keeps_open) continue;
    writer.reset();
    if (std::filesystem::exists(path + "-wal")) ++times.logs_left;
  }
  ::_exit(0);
}

class TimeReader final : public Dml::SubscriptionReader {
 public:
  void OnCreated(const Por::View::Unit& object) override {
    const auto number =
        Por::Util::GetValue<unsigned int>(Por::Util::GetProperty(object, "N").GetValue());
    seen[number] = Bench::Now();
    ++count;
  }
  void OnUpdated(const Por::View::Unit&, const Por::View::Unit&) override {}
  void OnDeleted(const Por::View::Unit&) override {}

  std::vector<double> seen = std::vector<double>(kChanges);
  std::atomic<unsigned int> count{0};
};

// A store and a reader that follows it until this goes.
class Following {
 public:
  explicit Following(const std::string& path)
      : office_(Dml::CreatePostOffice(Common::Utf8ToString(path.c_str()))) {
    Async::WaitingHandler subscribed(true);
    const auto job = office_->Subscribe(Core::EntryPoint(), {}, nullptr, subscription_, subscribed);
    const Common::Error error = subscribed.Wait(job.get());
    if (error.IsFailure()) throw Common::Error(error);
    cycle_ = Async::RunCyclic(Async::MakeAction([this](Async::ActionHandler& handler) {
                                return subscription_->Read(reader, handler);
                              }),
                              ended_);
  }
  ~Following() {
    cycle_->Cancel();
    ended_.Wait(nullptr);
  }

  TimeReader reader;

 private:
  const std::unique_ptr<Dml::PostOffice> office_;
  std::unique_ptr<Dml::Subscription> subscription_;
  Async::WaitingHandler ended_{true};
  std::shared_ptr<Async::Job> cycle_;
};

rusage GetUsage() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage;
}

double GetProcessorSeconds(const rusage& usage = GetUsage()) {
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void ReportIdle(const char* name) {
  std::this_thread::sleep_for(std::chrono::seconds(3));  // until the pauses are at their longest
  const double before = GetProcessorSeconds();
  std::this_thread::sleep_for(kIdleTime);
  Bench::Report(name, (GetProcessorSeconds() - before) / kIdleTime.count() * 100, "%");
}

void ReportDelays(const std::string& folder, const std::string& name, bool keeps_open,
                  std::chrono::microseconds pause) {
  void* const memory =
      ::mmap(nullptr, sizeof(Times), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  Times& times = *new (memory) Times();
  const std::string path = folder + "/" + name;
  SqliteStoreWriter::Create(path);
  const pid_t writer = StartWriter(path, times, keeps_open, pause);
  std::vector<double> delays;
  const double before = GetProcessorSeconds();
  {
    const Following following(path);
    ::waitpid(writer, nullptr, 0);
    for (int i = 0; i < 1000 && following.reader.count < kChanges; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (following.reader.count != kChanges) std::printf("%s: changes are missing\n", name.c_str());
    for (unsigned int i = 0; i < kChanges; ++i) {
      delays.push_back((following.reader.seen[i] - times.committed[i]) * 1e3);
    }
  }
  std::sort(delays.begin(), delays.end());
  Bench::Report(name + "-delay-median", delays[delays.size() / 2], "ms");
  Bench::Report(name + "-delay-p99", delays[delays.size() * 99 / 100], "ms");
  Bench::Report(name + "-delay-max", delays.back(), "ms");
  Bench::Report(name + "-processor", (GetProcessorSeconds() - before) / kChanges * 1e6,
                "us/change");
  if (!keeps_open) Bench::Report(name + "-logs-left", times.logs_left * 100.0 / kChanges, "%");
  ::munmap(memory, sizeof(Times));
}

class CountReader final : public Dml::SubscriptionReader {
 public:
  void OnCreated(const Por::View::Unit&) override { ++count; }
  void OnUpdated(const Por::View::Unit&, const Por::View::Unit&) override { ++count; }
  void OnDeleted(const Por::View::Unit&) override { ++count; }

  unsigned int count = 0;
};

// Processor time. Writes and follows one behind the other. The writer is a process of its own: the
// peak is the reader's, and shows growth from one call to a larger one.
void ReportTransaction(const std::string& folder, unsigned int changes) {
  const std::string name = "objprobe-transaction-" + std::to_string(changes);
  const std::string path = folder + "/" + name;
  SqliteStoreWriter::Create(path);
  int go[2];
  if (::pipe(go) != 0) return;
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    ::close(go[1]);  // so that the end of the parent is met
    char byte = 0;
    if (::read(go[0], &byte, 1) != 1) ::_exit(1);
    {
      SqliteStoreWriter writer(path);
      writer.Begin();
      for (unsigned int i = 0; i < changes; ++i) writer.Put(*MakeObject(i));
      writer.Commit();
    }
    ::_exit(0);
  }
  const auto office = Dml::CreatePostOffice(Common::Utf8ToString(path.c_str()));
  std::unique_ptr<Dml::Subscription> subscription;
  Async::WaitingHandler subscribed(true);
  const auto job = office->Subscribe(Core::EntryPoint(), {}, nullptr, subscription, subscribed);
  const Common::Error error = subscribed.Wait(job.get());
  if (error.IsFailure()) throw Common::Error(error);
  if (::write(go[1], "", 1) != 1) return;
  rusage writing{};
  int status = 0;
  if (::wait4(child, &status, 0, &writing) != child || status != 0) {
    throw std::runtime_error("the writer failed");
  }
  const double before = GetProcessorSeconds();
  CountReader reader;
  while (reader.count < changes) {
    Async::WaitingHandler read(true);
    const auto reading = subscription->Read(reader, read);
    const Common::Error failure = read.Wait(reading.get());
    if (failure.IsFailure()) throw Common::Error(failure);
  }
  const double following = GetProcessorSeconds() - before;
  ::close(go[0]);
  ::close(go[1]);
  Bench::Report(name + "-write", GetProcessorSeconds(writing) / changes * 1e6, "us/change");
  Bench::Report(name + "-follow", following / changes * 1e6, "us/change");
  Bench::Report(name + "-peak", static_cast<double>(GetUsage().ru_maxrss) / 1024, "MiB");
}

}  // namespace

int main(int argc, char**) {
  char folder[] = "/tmp/objprobe_follow.XXXXXX";
  if (::mkdtemp(folder) == nullptr) return 1;
  if (argc < 2) {
    ReportDelays(folder, "objprobe-follow-sessions", false, std::chrono::milliseconds(60));
    ReportDelays(folder, "objprobe-follow-rare", true, std::chrono::milliseconds(60));
    ReportDelays(folder, "objprobe-follow-burst", true, std::chrono::microseconds(100));
    const std::string path = folder + std::string("/idle");
    SqliteStoreWriter::Create(path);
    const Following following(path);
    ReportIdle("objprobe-follow-idle-closed-store");
    SqliteStoreWriter writer(path);
    writer.Begin();
    writer.Put(*MakeObject(1));
    writer.Commit();
    ReportIdle("objprobe-follow-idle-open-store");
  }
  for (const unsigned int changes : {10'000U, 100'000U, 600'000U}) {
    ReportTransaction(folder, changes);
  }
  std::filesystem::remove_all(folder);
  return 0;
}
