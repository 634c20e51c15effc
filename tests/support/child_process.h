#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "core/common/non_copyable.h"

namespace TestSupport {

// A process that runs `body` and ends with status 0 when that returns true. It is killed, if it
// still runs, and reaped in any case.
class ChildProcess : public Common::NonCopyable {
 public:
  explicit ChildProcess(const std::function<bool()>& body) : id_(::fork()) {
    if (id_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives the test
    bool good = false;
    try {
      good = body();
    } catch (...) {
    }
    ::_exit(good ? 0 : 1);
  }
  ~ChildProcess() {
    if (!reaped_) Kill();
  }

  bool IsRunning() {
    if (!reaped_) reaped_ = ::waitpid(id_, &status_, WNOHANG) != 0;
    return !reaped_;
  }
  // The status with which it ended, negative for a signal.
  int Wait() {
    if (!reaped_) reaped_ = ::waitpid(id_, &status_, 0) == id_;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
  }
  int Kill() {
    ::kill(id_, SIGKILL);
    return Wait();
  }

 private:
  const pid_t id_;
  bool reaped_ = false;
  int status_ = 0;
};

}  // namespace TestSupport
