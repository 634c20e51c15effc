#include "tests/support/running_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace TestSupport {

RunningProgram::RunningProgram(const std::string& file, const std::vector<std::string>& argv,
                               const std::vector<std::string>& environment)
    : out_(::memfd_create("out", MFD_CLOEXEC)), err_(::memfd_create("err", MFD_CLOEXEC)) {
  std::signal(SIGPIPE, SIG_IGN);  // of Type
  int in[2];
  EXPECT_EQ(::pipe2(in, O_CLOEXEC), 0);
  id_ = StartProgram(file, argv, {.environment = environment},
                     {.in = in[0], .out = out_, .err = err_});
  ::close(in[0]);
  in_ = in[1];
}

RunningProgram::~RunningProgram() {
  Kill();
  CloseInput();
  ::close(out_);
  ::close(err_);
}

bool RunningProgram::IsRunning() {
  if (!reaped_) reaped_ = ::waitpid(id_, &status_, WNOHANG) == id_;
  return !reaped_;
}

void RunningProgram::Type(std::string_view text) {
  const ssize_t size = ::write(in_, text.data(), text.size());
  EXPECT_TRUE(size == static_cast<ssize_t>(text.size()) || errno == EPIPE);
}

void RunningProgram::CloseInput() {
  if (in_ >= 0) ::close(in_);
  in_ = -1;
}

void RunningProgram::Signal(int number) {
  if (IsRunning()) ::kill(id_, number);
}

int RunningProgram::Wait(std::chrono::milliseconds patience) {
  if (!Await([&] { return !IsRunning(); }, patience)) {
    ADD_FAILURE() << "The program did not end in time.";
    Kill();
  }
  return DecodeStatus(status_);
}

int RunningProgram::Kill() {
  Signal(SIGKILL);
  if (!reaped_) reaped_ = ::waitpid(id_, &status_, 0) == id_;
  return DecodeStatus(status_);
}

std::string RunningProgram::Read(int descriptor, std::size_t from) {
  std::string text;
  char buffer[65536];
  ssize_t size = 0;
  while ((size = ::pread(descriptor, buffer, sizeof buffer,
                         static_cast<off_t>(from + text.size()))) > 0) {
    text.append(buffer, static_cast<std::size_t>(size));
  }
  return text;
}

}  // namespace TestSupport
