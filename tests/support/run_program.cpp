#include "tests/support/run_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace TestSupport {

ProgramResult RunProgram(const char* file, const std::vector<std::string>& argv, Sink sink) {
  std::vector<char*> arguments;
  for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);

  int out[2];
  EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
  const int err = ::memfd_create("err", MFD_CLOEXEC);
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  if (sink == Sink::kClosedPipe) ::close(out[0]);

  const pid_t child = ::fork();
  if (child == 0) {
    ::signal(SIGPIPE, SIG_DFL);
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    ::dup2(sink == Sink::kFull ? full : out[1], STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    if (sink == Sink::kNone) ::close(STDOUT_FILENO);
    ::execv(file, arguments.data());
    ::_exit(127);
  }
  ::close(out[1]);

  ProgramResult result;
  char buffer[65536];
  if (sink != Sink::kClosedPipe) {
    for (ssize_t size = 0; (size = ::read(out[0], buffer, sizeof buffer)) > 0;) {
      result.out.append(buffer, static_cast<std::size_t>(size));
    }
    ::close(out[0]);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  ::lseek(err, 0, SEEK_SET);
  for (ssize_t size = 0; (size = ::read(err, buffer, sizeof buffer)) > 0;) {
    result.err.append(buffer, static_cast<std::size_t>(size));
  }
  ::close(err);
  ::close(full);
  return result;
}

}  // namespace TestSupport
