#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/error_record.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace TestSupport {

inline std::string ReadWhole(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void WriteWhole(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

using Codes = std::vector<std::uint32_t>;

// The codes of the error and its reasons.
inline Codes CodesOf(Common::Error error) {
  Codes codes;
  for (; error.GetRecord() != nullptr; error = error.GetNextError()) {
    codes.push_back(error.GetCode());
  }
  return codes;
}

// A parameter of the error; "-" when it has none of that name.
inline std::string ParameterOf(const Common::Error& error, const char* name) {
  const Common::ErrorRecord* const record = error.GetRecord();
  const char* const value = record != nullptr ? record->operations->GetAnsi(record, name) : nullptr;
  return value != nullptr ? value : "-";
}

// Another process that has a lock of fcntl. It lets go when its end is asked for, or with the
// object.
class LockHolder {
 public:
  LockHolder(const std::string& path, short type, off_t start = 0, off_t length = 0)
      : made_(::pipe(ready_) == 0 && ::pipe(end_) == 0), child_([&] {
          const int descriptor = ::open(path.c_str(), O_RDWR);
          struct flock record {};
          record.l_type = type;
          record.l_start = start;
          record.l_len = length;
          if (::fcntl(descriptor, F_SETLK, &record) != 0) return false;
          ::close(end_[1]);
          char byte = 0;
          return ::write(ready_[1], &byte, 1) == 1 && ::read(end_[0], &byte, 1) == 0 &&
                 // What comes before the end of the lock.
                 ::pwrite(descriptor, "!", 1, 0) == 1;
        }) {
    ::close(ready_[1]);
    char byte = 0;
    EXPECT_TRUE(made_ && ::read(ready_[0], &byte, 1) == 1);
  }
  ~LockHolder() {
    End();
    ::close(ready_[0]);
    ::close(end_[0]);
  }

  // Doesn't wait for it.
  void End() {
    if (!ended_) ::close(end_[1]);
    ended_ = true;
  }

 private:
  int ready_[2];
  int end_[2];
  const bool made_;
  bool ended_ = false;
  ChildProcess child_;
};

// Whether `body` gives true in a process with the rights of an ordinary user.
inline bool AsUser(const std::function<bool()>& body) {
  ChildProcess child([&] {
    constexpr uid_t kNobody = 65534;
    if (::geteuid() == 0 && (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) return false;
    return body();
  });
  return child.Wait() == 0;
}

}  // namespace TestSupport
