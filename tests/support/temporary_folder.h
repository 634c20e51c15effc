#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace TestSupport {

// A new folder, removed with all that is in it.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(testing::TempDir() + "objprobe_test.XXXXXX") {
    EXPECT_NE(::mkdtemp(path_.data()), nullptr);
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    // A test may have taken the rights.
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& GetPath() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace TestSupport
