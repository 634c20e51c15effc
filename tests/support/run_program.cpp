#include "tests/support/run_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string_view>

namespace TestSupport {
namespace {

std::vector<char*> MakePointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// What sets our programs: their own settings, and the language.
bool IsSetting(std::string_view entry) {
  return entry.starts_with("VELORIN_") || entry.starts_with("LC_") || entry.starts_with("LANG");
}

std::string ReadToEnd(int descriptor) {
  std::string text;
  char buffer[65536];
  for (ssize_t size = 0; (size = ::read(descriptor, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(size));
  }
  ::close(descriptor);
  return text;
}

}  // namespace

pid_t StartProgram(const std::string& file, const std::vector<std::string>& argv,
                   const ProgramOptions& options, const ProgramStreams& streams) {
  std::vector<std::string> environment = options.environment;
  // The leak checker can't work under a debugger.
  if (options.is_debugged) environment.push_back("LSAN_OPTIONS=detect_leaks=0");
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (!IsSetting(*entry)) environment.push_back(*entry);
  }
  const std::vector<char*> arguments = MakePointers(argv);
  const std::vector<char*> variables = MakePointers(environment);

  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives the test
    ::signal(SIGPIPE, SIG_DFL);
    ::dup2(streams.in >= 0 ? streams.in : ::open("/dev/null", O_RDONLY), STDIN_FILENO);
    ::dup2(streams.out, STDOUT_FILENO);
    ::dup2(streams.err, STDERR_FILENO);
    if (options.sink == Sink::kNone) ::close(STDOUT_FILENO);
    const rlimit no_core{0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
    if (!options.folder.empty() && ::chdir(options.folder.c_str()) != 0) ::_exit(126);
    if (options.is_debugged && ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(125);
    ::execve(file.c_str(), arguments.data(), variables.data());
    ::_exit(127);
  }
  EXPECT_GT(child, 0);
  return child;
}

int DecodeStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

ProgramResult RunProgram(const std::string& file, const std::vector<std::string>& argv,
                         const ProgramOptions& options) {
  int out[2];
  EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
  const int err = ::memfd_create("err", MFD_CLOEXEC);
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  if (options.sink == Sink::kClosedPipe) ::close(out[0]);

  const pid_t child = StartProgram(
      file, argv, options, {.out = options.sink == Sink::kFull ? full : out[1], .err = err});
  ::close(out[1]);

  ProgramResult result;
  int status = 0;
  if (options.is_debugged) {
    // Before its output is read, which fits into the pipe. The first trap is that of the exec.
    result.traps = -1;
    while (::waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
      const bool is_trap = WSTOPSIG(status) == SIGTRAP;
      if (is_trap) ++result.traps;
      ::ptrace(PTRACE_CONT, child, nullptr, is_trap ? 0L : static_cast<long>(WSTOPSIG(status)));
    }
  }
  if (options.sink != Sink::kClosedPipe) result.out = ReadToEnd(out[0]);
  if (!options.is_debugged) {
    EXPECT_EQ(::waitpid(child, &status, 0), child);
  }
  result.status = DecodeStatus(status);
  ::lseek(err, 0, SEEK_SET);
  result.err = ReadToEnd(err);
  ::close(full);
  return result;
}

}  // namespace TestSupport
