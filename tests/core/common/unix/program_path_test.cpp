#include "core/common/unix/program_path.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/core/common/unix/child.h"

namespace {

using Common::AppendPath;

TEST(AppendPath, JoinsAndNormalises) {
  const struct {
    const char* base;
    const char* path;
    const char* expected;
  } cases[] = {
      {"/a/b", "../c", "/a/c"}, {"/a", "../../c", "/c"}, {"/a", "b//./c/", "/a/b/c"},
      {"/a", "/b", "/b"},       {"/a", "/", "/"},        {"/a", "//b/../..", "/"},
      {"", "a/b", "ab"},  // a base of one character is taken for the root
      {"", "ab/c", "ab/c"},     {"", "..", ""},          {"abc", "..", "a"},
      {"abc/d", "../..", "a"},  {"/a", "", "/a"},        {"/a", "..b/...", "/a/..b/..."},
  };
  for (const auto& row : cases) {
    std::string base = row.base;
    AppendPath(base, row.path);
    EXPECT_EQ(base, row.expected) << row.base << " and " << row.path;
  }
}

class ProgramPath : public testing::Test {
 protected:
  void SetUp() override {
    char* const path = realpath(CHILD_PROGRAM, nullptr);
    ASSERT_NE(path, nullptr);
    path_ = path;
    std::free(path);
    folder_ = path_.substr(0, path_.rfind('/'));
    expected_ = path_ + "\ncore_common_unix_child\n1\nwent on\n";
  }

  std::string path_;
  std::string folder_;
  std::string expected_;
};

TEST_F(ProgramPath, IsFoundHoweverTheProgramIsStarted) {
  ChildOptions options;
  options.program = path_;
  for (const std::string& name :
       {path_, folder_ + "/./" + "core_common_unix_child", std::string("./core_common_unix_child"),
        std::string("core_common_unix_child")}) {
    options.name = name;
    options.folder = folder_;
    EXPECT_EQ(RunChild({"path"}, options).out, expected_) << name;
  }
  options.name = "../" + folder_.substr(folder_.rfind('/') + 1) + "/core_common_unix_child";
  EXPECT_EQ(RunChild({"path"}, options).out, expected_);
}

TEST_F(ProgramPath, IsEmptyWhenItsFolderIsGone) {
  ChildOptions options;
  options.program = path_;
  options.name = "./core_common_unix_child";
  EXPECT_EQ(RunChild({"path-in-removed-folder"}, options).out, "\n\nwent on\n");
}

}  // namespace
