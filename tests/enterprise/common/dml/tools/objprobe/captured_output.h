#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "enterprise/common/dml/tools/objprobe/output.h"

namespace ObjProbe {

// An output whose text the test gets back.
class CapturedOutput {
 public:
  ~CapturedOutput() {
    output.Flush();
    ::close(file_);
  }
  // What was written since the last call.
  std::string Take() {
    output.Flush();
    const off_t size = ::lseek(file_, 0, SEEK_CUR);
    std::string text(static_cast<std::size_t>(size), 0);
    EXPECT_EQ(::pread(file_, text.data(), text.size(), 0), size);
    EXPECT_EQ(::ftruncate(file_, 0), 0);
    EXPECT_EQ(::lseek(file_, 0, SEEK_SET), 0);
    return text;
  }

 private:
  const int file_ = ::memfd_create("output", 0);

 public:
  Output output{file_};
};

}  // namespace ObjProbe
