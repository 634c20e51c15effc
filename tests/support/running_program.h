#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/common/non_copyable.h"
#include "tests/support/run_program.h"

namespace TestSupport {

// How long anything may take that takes no time; only a hang takes longer.
inline constexpr std::chrono::seconds kPatience{60};

// Whether the condition has come true in time. Looks again every few milliseconds.
template <class Condition>
bool Await(Condition&& condition, std::chrono::milliseconds patience = kPatience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  return true;
}

// A program that runs beside the test, with this object at its streams. One thread at a time, the
// one that made it; it is killed, if it still runs, at the end of either.
// The test no longer gets SIGPIPE.
class RunningProgram : public Common::NonCopyable {
 public:
  // As RunProgram; the environment is before that of the test.
  RunningProgram(const std::string& file, const std::vector<std::string>& argv,
                 const std::vector<std::string>& environment = {});
  ~RunningProgram();

  pid_t GetId() const { return id_; }
  bool IsRunning();
  // On its standard input, if it still has one.
  void Type(std::string_view text);
  void CloseInput();
  void Signal(int number);
  // What it has written so far, from a place on.
  std::string GetOutput(std::size_t from = 0) const { return Read(out_, from); }
  std::string GetErrors() const { return Read(err_, 0); }
  // The exit status as in ProgramResult; kills the program when it doesn't end in time.
  int Wait(std::chrono::milliseconds patience = kPatience);
  int Kill();

 private:
  static std::string Read(int descriptor, std::size_t from);

  int in_ = -1;
  const int out_;
  const int err_;
  pid_t id_ = 0;
  bool reaped_ = false;
  int status_ = 0;
};

}  // namespace TestSupport
