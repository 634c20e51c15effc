// How soon a listener prints what another process has changed in the store of a service, and how
// soon a report begins: real programs of the same build over a local socket. Prints "name value
// unit" lines.
//
// A delay counts from the return of the commit to the arrival of the event's first line in the pipe
// of `objprobe`, so that a writer that takes long to get back from its commit may show one below
// zero. A start counts from the fork to the first byte of output, beside the start of /bin/true
// until its end.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "bench/workload.h"
#include "core/common/guid.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "platform/store/sqlite_store_writer.h"

namespace {

using Platform::Store::SqliteStoreWriter;

constexpr unsigned int kChanges = 300;
constexpr int kStarts = 50;
constexpr int kMaxWait = 10000;  // milliseconds

Por::OwnedUnit MakeObject(unsigned int number) {
  const Por::Construction::UnitFactory& factory = *Por::GetStaticUnitFactory();
  Common::Guid id;
  id.SetFirst(number + 1);
  Por::OwnedUnit object = factory.CreateComposite();
  Por::Util::AddTrait(*object, "Is", factory.CreateString(u"Machine"), factory);
  Por::Util::AddTrait(*object, "PrimaryKey", factory.CreateGuid(id), factory);
  Por::Util::AddProperty(*object, "N", factory.CreateDWord(number), factory);
  return object;
}

// A program with pipes for its input and one of its outputs. Its end is that of its input and,
// after a second, a signal.
class Program {
 public:
  Program(std::vector<std::string> arguments, int output) {
    int input_pipe[2];
    int output_pipe[2];
    if (::pipe2(input_pipe, O_CLOEXEC) != 0 || ::pipe2(output_pipe, O_CLOEXEC) != 0) ::_exit(1);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input_pipe[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output_pipe[1], output);
    if (::posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) {
      std::perror(pointers[0]);
      std::exit(1);
    }
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(input_pipe[0]);
    ::close(output_pipe[1]);
    input_ = input_pipe[1];
    output_ = output_pipe[0];
  }
  ~Program() {
    ::close(input_);
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    ::close(output_);
  }

  // False at the end, or when nothing comes.
  bool Read(std::string& text) {
    char bytes[65536];
    pollfd wait{output_, POLLIN, 0};
    if (::poll(&wait, 1, kMaxWait) != 1) return false;
    const ssize_t size = ::read(output_, bytes, sizeof bytes);
    if (size <= 0) return false;
    text.append(bytes, static_cast<std::size_t>(size));
    return true;
  }
  bool ReadUntil(std::string& text, std::string_view end) {
    while (text.find(end) == std::string::npos) {
      if (!Read(text)) return false;
    }
    return true;
  }

 private:
  pid_t pid_ = 0;
  int input_ = -1;
  int output_ = -1;
};

std::unique_ptr<Program> StartService(const std::string& programs, const std::string& path) {
  auto service = std::make_unique<Program>(
      std::vector<std::string>{programs + "/objprobe-service", "--serve", "HUB=" + path},
      STDERR_FILENO);
  std::string said;
  if (!service->ReadUntil(said, "ready")) {
    std::fprintf(stderr, "The service doesn't start: %s\n", said.c_str());
    std::exit(1);
  }
  return service;
}

void ReportDelays(const std::string& programs, const std::string& folder, const std::string& name,
                  std::chrono::microseconds pause) {
  const std::string path = folder + "/" + name;
  SqliteStoreWriter::Create(path);
  SqliteStoreWriter writer(path);
  const auto put = [&](unsigned int number) {
    writer.Begin();
    writer.Put(*MakeObject(number));
    writer.Commit();
  };
  put(0);
  const std::unique_ptr<Program> service = StartService(programs, path);
  Program listener({programs + "/objprobe", "localhost", "u", "p", "HUB", "Machine"},
                   STDOUT_FILENO);
  std::string text;
  // The object that was there is printed when the listening has begun.
  if (!listener.ReadUntil(text, "</created>")) {
    std::fprintf(stderr, "The listener doesn't begin: %s\n", text.c_str());
    std::exit(1);
  }
  text.clear();
  std::vector<double> seen;
  std::thread reading([&] {
    std::string line;
    while (seen.size() < kChanges && listener.Read(line)) {
      const double now = Bench::Now();
      std::size_t end;
      while ((end = line.find('\n')) != std::string::npos) {
        if (line.starts_with("<created ")) seen.push_back(now);
        line.erase(0, end + 1);
      }
    }
  });
  std::vector<double> committed;
  for (unsigned int i = 0; i < kChanges; ++i) {
    // Out of step with whatever looks regularly.
    std::this_thread::sleep_for(pause + pause * ((i * 7) % 13) / 13);
    put(i + 1);
    committed.push_back(Bench::Now());
  }
  reading.join();
  if (seen.size() != kChanges) {
    std::printf("# %s: changes are missing\n", name.c_str());
    return;
  }
  std::vector<double> delays;
  for (unsigned int i = 0; i < kChanges; ++i) delays.push_back((seen[i] - committed[i]) * 1e3);
  std::sort(delays.begin(), delays.end());
  Bench::Report(name + "-delay-median", delays[delays.size() / 2], "ms");
  Bench::Report(name + "-delay-p99", delays[delays.size() * 99 / 100], "ms");
  Bench::Report(name + "-delay-max", delays.back(), "ms");
}

// Both programs in turn, so that slow spells hit both.
void ReportStarts(const std::string& programs, const std::string& folder) {
  const std::string path = folder + "/starts";
  SqliteStoreWriter::Create(path);
  {
    SqliteStoreWriter writer(path);
    writer.Begin();
    writer.Put(*MakeObject(0));
    writer.Commit();
  }
  const std::unique_ptr<Program> service = StartService(programs, path);
  const std::vector<std::pair<const char*, std::vector<std::string>>> commands = {
      {"true-start-to-end", {"/bin/true"}},
      {"objprobe-usage-first-byte", {programs + "/objprobe"}},
      {"objprobe-service-report-first-byte",
       {programs + "/objprobe", "localhost", "u", "p", "HUB", "Machine", "report"}},
      {"objprobe-store-report-first-byte",
       {programs + "/objprobe", path, "u", "p", "DB", "Machine"}},
  };
  std::vector<std::vector<double>> first(commands.size());
  std::vector<double> object;
  for (int i = 0; i < kStarts; ++i) {
    for (std::size_t k = 0; k < commands.size(); ++k) {
      const double start = Bench::Now();
      Program program(commands[k].second, STDOUT_FILENO);
      std::string text;
      program.Read(text);
      first[k].push_back((Bench::Now() - start) * 1e3);
      if (k == 2 && program.ReadUntil(text, "<object ")) {
        object.push_back((Bench::Now() - start) * 1e3);
      }
    }
  }
  for (std::size_t k = 0; k < commands.size(); ++k) {
    Bench::Report(commands[k].first, Bench::TakeMedian(first[k]), "ms");
  }
  if (object.empty()) return;
  Bench::Report("objprobe-service-report-first-object", Bench::TakeMedian(object), "ms");
}

}  // namespace

int main(int, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  const std::string programs =
      std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "bin";
  char folder[] = "/tmp/objprobe_latency.XXXXXX";
  if (::mkdtemp(folder) == nullptr) {
    std::perror(argv[0]);
    return 1;
  }
  ::setenv("VELORIN_IPC_DIR", folder, 1);
  ReportStarts(programs, folder);
  ReportDelays(programs, folder, "objprobe-remote-burst", std::chrono::microseconds(100));
  ReportDelays(programs, folder, "objprobe-remote-10ms", std::chrono::milliseconds(10));
  ReportDelays(programs, folder, "objprobe-remote-rare", std::chrono::milliseconds(60));
  std::filesystem::remove_all(folder);
  return 0;
}
