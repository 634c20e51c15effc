#include "core/common/unix/program_path.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/core/common/unix/child.h"
#include "tests/support/temporary_folder.h"

namespace {

using TestSupport::ProgramOptions;
using TestSupport::RunProgram;

TEST(AppendPath, JoinsAndNormalises) {
  const struct {
    const char* base;
    const char* path;
    const char* expected;
  } cases[] = {
      {"/a/b", "../c", "/a/c"}, {"/a", "b//./c/", "/a/b/c"},
      {"/a", "/b", "/b"},       {"/a", "//b/../..", "/"},
      {"", "a/b", "ab"},  // a base of one character is taken for the root
      {"", "..", ""},           {"abc/d", "../..", "a"},
      {"/a", "", "/a"},         {"/a", "..b/...", "/a/..b/..."},
  };
  for (const auto& row : cases) {
    std::string base = row.base;
    Common::AppendPath(base, row.path);
    EXPECT_EQ(base, row.expected) << row.base << " and " << row.path;
  }
}

TEST(ProgramPath, IsFoundHoweverTheProgramIsStartedUnlessItsFolderIsGone) {
  const std::filesystem::path path = std::filesystem::canonical(CHILD_PROGRAM);
  const std::string name = path.filename();
  ProgramOptions options;
  options.folder = path.parent_path();
  for (const std::string& start : {path.string(), options.folder + "/./" + name, "./" + name, name,
                                   "../" + path.parent_path().filename().string() + "/" + name}) {
    EXPECT_EQ(RunProgram(path, {start, "path"}, options).out,
              path.string() + "\ncore_common_unix_child\n1\nwent on\n")
        << start;
  }
  const TestSupport::TemporaryFolder folder;
  options.folder = folder.GetPath();
  EXPECT_EQ(RunProgram(path, {"./" + name, "path-in-removed-folder"}, options).out,
            "\n\nwent on\n");
}

}  // namespace
