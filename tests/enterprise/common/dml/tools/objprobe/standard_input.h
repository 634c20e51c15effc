#pragma once

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <utility>

namespace ObjProbe {

// A pipe as standard input.
class StandardInput {
 public:
  StandardInput() {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    ::dup2(ends[0], STDIN_FILENO);
    ::close(ends[0]);
    writer_ = ends[1];
  }
  ~StandardInput() {
    End();
    ::dup2(former_, STDIN_FILENO);
    ::close(former_);
  }
  void Type() { EXPECT_EQ(::write(writer_, "q", 1), 1); }
  void End() {
    if (writer_ >= 0) ::close(std::exchange(writer_, -1));
  }
  static int CountUnread() {
    int count = -1;
    EXPECT_EQ(::ioctl(STDIN_FILENO, FIONREAD, &count), 0);
    return count;
  }

 private:
  const int former_ = ::dup(STDIN_FILENO);
  int writer_ = -1;
};

}  // namespace ObjProbe
