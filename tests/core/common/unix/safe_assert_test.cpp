#include "core/common/unix/safe_assert.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "tests/core/common/unix/child.h"
#include "tests/support/temporary_folder.h"

namespace {

using TestSupport::ProgramResult;

constexpr char kText[] = "Assertion failed: a == b, file probe.cpp, line 7\n";
constexpr char kWentOn[] = "went on\n";
constexpr int kAborted = 1000 + SIGABRT;

ProgramResult RunWith(const std::string& mode,
                      const std::vector<std::string>& arguments = {"assert", "a == b"},
                      const std::string& log_file = {}) {
  TestSupport::ProgramOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=" + mode};
  if (!log_file.empty()) {
    options.environment.push_back("VELORIN_SAFE_ASSERT_LOGFILE=" + log_file);
  }
  return RunChild(arguments, options);
}

// The text of an assertion of the child.
std::string TextOf(const std::string& expression) {
  return "Assertion failed: " + expression + ", file probe.cpp, line 7\n";
}

// Checks the text and the call stack behind it.
void ExpectTextAndStack(const std::string& output) {
  ASSERT_TRUE(output.starts_with(kText)) << output;
  const std::string stack = output.substr(sizeof kText - 1);
  EXPECT_NE(stack.find(" ( Probe::Violate(char const*) "), std::string::npos) << stack;
  EXPECT_NE(stack.find(" ( Common::SafeAssert(char const*, char const*, int) "), std::string::npos)
      << stack;
  // The walk's own frames are left out.
  EXPECT_EQ(stack.find("Common::WalkStack"), std::string::npos) << stack;
  EXPECT_LE(std::count(stack.begin(), stack.end(), '\n'), 30);
}

class SafeAssertLog : public testing::Test {
 protected:
  SafeAssertLog() { std::ofstream(file_) << "before\n"; }
  // What has been added to the file.
  std::string Read() const {
    std::ifstream file(file_);
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_TRUE(text.str().starts_with("before\n"));
    return text.str().substr(7);
  }

  const TestSupport::TemporaryFolder folder_;
  const std::string file_ = folder_ / "log";
};

TEST(SafeAssertSettings, StartWithLogAndStackOnStandardError) {
  for (const ProgramResult& result : {RunChild({"assert", "a == b"}), RunWith("")}) {
    ExpectTextAndStack(result.err);
    EXPECT_EQ(result.out, kWentOn);
    EXPECT_EQ(result.status, 0);
  }
}

TEST(SafeAssertSettings, ComeFromWordsOrANumber) {
  const std::string blanks(117, ' ');
  const struct {
    std::string mode;
    bool logs;
    bool aborts;
  } cases[] = {
      {"log abort", true, true},
      {"  log\tevent  debug break msgbox ", true, false},
      {"log nonsense abort", false, false},
      {"Log abort", false, false},
      {"0x20", false, true},
      {"4", true, false},
      {"deb", false, true},  // 0xdeb: everything but log and msgbox
      {"0x", false, false},
      {"0x4 ", false, false},
      {"-4", false, false},
      {"10000000000000004", false, false},
      // 127 characters count.
      {"log  " + blanks + "abort", true, true},
      {"log   " + blanks + "abort", false, false},
      {"log       " + blanks + "abort", true, false},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.mode);
    const ProgramResult result = RunWith(row.mode);
    EXPECT_EQ(result.err, row.logs ? kText : "");
    EXPECT_EQ(result.status, row.aborts ? kAborted : 0);
    EXPECT_EQ(result.out, row.aborts ? "" : kWentOn);
  }
}

TEST_F(SafeAssertLog, GoesToTheChosenTarget) {
  const std::vector<std::string> arguments{"assert", "a == b"};
  EXPECT_EQ(RunWith("log", arguments, file_).err, "");
  EXPECT_EQ(RunWith("4", arguments, file_).err, "");
  EXPECT_EQ(Read(), std::string(kText) + kText);
  EXPECT_EQ(RunWith("log", arguments, "stderr").err, kText);
  EXPECT_EQ(RunWith("log", arguments, "stdout").out, std::string(kText) + kWentOn);
  EXPECT_EQ(RunWith("log", arguments, "/nonexistent/file").err, kText);
  const std::string pipe = folder_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(RunWith("log", arguments, pipe).err, kText);
  // Also when the mode stays as it starts.
  EXPECT_EQ(RunWith("", arguments, file_).err, "");
  ExpectTextAndStack(Read().substr(2 * (sizeof kText - 1)));

  // Without "log" the file isn't even made.
  const std::string unused = folder_ / "unused";
  EXPECT_EQ(RunWith("abort", arguments, unused).status, kAborted);
  EXPECT_FALSE(std::filesystem::exists(unused));
}

TEST_F(SafeAssertLog, IsClosedAtExitAndLaterReportsReachStandardError) {
  std::string expected;
  for (const char* const mode : {"log", "log log"}) {
    EXPECT_EQ(RunWith(mode, {"at-exit"}, file_).err, TextOf("late"));
    EXPECT_EQ(Read(), expected += TextOf("early")) << mode;
  }
}

TEST(SafeAssertSettings, AreReadAtTheFirstReportOnly) {
  const ProgramResult twice = RunWith("log", {"twice"});
  EXPECT_EQ(twice.err, TextOf("first") + TextOf("second"));
  EXPECT_EQ(twice.status, 0);
}

TEST(SafeAssert, EvaluatesOnceQuotesTheExpressionAndKeepsErrno) {
  const ProgramResult result = RunWith("log", {"macro"});
  EXPECT_TRUE(std::regex_match(
      result.err, std::regex("Assertion failed: Probe::CountAndFail\\(evaluations\\) == 1, file "
                             "tests/core/common/unix/child_main\\.cpp, line [0-9]+\n")))
      << result.err;
  EXPECT_EQ(result.out, "1 1\nwent on\n");
  // Assertions that are off fail to open the log on the way.
  EXPECT_EQ(RunWith("log nonsense", {"macro"}, "/nonexistent/file").out, "1 1\nwent on\n");
}

TEST(SafeAssertError, NamesProgramPlaceMessageAndSystemError) {
  const std::string place = "core_common_unix_child: probe.cpp:9: ";
  const std::string reason = "Unexpected error: No such file or directory.\n";
  EXPECT_EQ(RunWith("log", {"error", "Opening"}).err, place + "Opening: " + reason);
  EXPECT_EQ(RunWith("log", {"error", ""}).err, place + reason);
  EXPECT_EQ(RunWith("log", {"error"}).err, place + reason);

  // Long texts are cut.
  const std::string longer(5000, 'x');
  EXPECT_EQ(RunWith("log", {"error", longer}).err.size(), 4095u + 1);
  EXPECT_EQ(RunWith("log", {"assert", longer}).err,
            "Assertion failed: " + longer.substr(0, 539 - 18) + "\n");
}

// The trace registers its hook before main, in a program that never names it.
TEST(SafeAssertEvent, GoesToTheTrace) {
  const std::string text = std::string("5 0 27 ") + kText;
  EXPECT_EQ(RunWith("event", {"event", "a == b"}).out, text + kWentOn);

  const ProgramResult result = RunWith("event stack", {"event", "a == b"});
  EXPECT_EQ(result.err, "");
  ASSERT_TRUE(result.out.starts_with(text + "5 0 27 "));
  const std::string stack = result.out.substr(text.size() + 7);
  EXPECT_GE(std::count(stack.begin(), stack.end(), '|'), 3) << stack;
  EXPECT_NE(stack.find("Probe::Violate(char const*)"), std::string::npos) << stack;
  EXPECT_NE(stack.find("( main "), std::string::npos) << stack;
  EXPECT_TRUE(stack.ends_with(std::string("]\n") + kWentOn)) << stack;

  // A sink that asserts gets no report of that; one that throws harms nobody.
  const ProgramResult asserting = RunWith("event log", {"event-asserts", "a == b"});
  EXPECT_EQ(asserting.out, text + kWentOn);
  EXPECT_EQ(asserting.err, kText + TextOf("in sink"));
  const ProgramResult throwing = RunWith("event log", {"event-throws", "a == b"});
  EXPECT_EQ(throwing.out, text + kWentOn);
  EXPECT_EQ(throwing.err, kText);
  EXPECT_EQ(throwing.status, 0);
}

TEST(SafeAssertBreak, StopsOnlyInADebugger) {
  const struct {
    const char* mode;
    const char* what;
    int traps;
  } cases[] = {
      {"break", "assert", 1}, {"msgbox", "assert", 1}, {"break msgbox", "assert", 1},
      {"break", "error", 1},  {"msgbox", "error", 0},  {"debug", "assert", 0},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.mode) + " " + row.what);
    TestSupport::ProgramOptions options;
    options.environment = {std::string("VELORIN_SAFE_ASSERT=") + row.mode};
    EXPECT_EQ(RunChild({row.what, "x"}, options).status, 0);
    options.is_debugged = true;
    const ProgramResult result = RunChild({row.what, "x"}, options);
    EXPECT_EQ(result.traps, row.traps);
    EXPECT_EQ(result.out, kWentOn);
  }
}

TEST(SafeAssert, TellsOfAMutexThatAnotherThreadUnlocks) {
  TestSupport::ProgramOptions options;
  // The thread sanitizer isn't to report the misuse as well.
  options.environment = {"VELORIN_SAFE_ASSERT=log", "TSAN_OPTIONS=report_mutex_bugs=0"};
  const ProgramResult result = RunChild({"unlock"}, options);
  EXPECT_TRUE(result.err.starts_with(
      "Assertion failed: ret == 0 && \"Probably unlock from non-owner thread!\", file "
      "core/common/unix/mutex.cpp, "))
      << result.err;
  EXPECT_EQ(result.out, kWentOn);
}

}  // namespace
