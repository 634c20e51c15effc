#include "core/common/unix/safe_assert.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

#include "core/common/unix/safe_close.h"
#include "tests/core/common/unix/child.h"

namespace {

constexpr char kText[] = "Assertion failed: a == b, file probe.cpp, line 7\n";
constexpr char kWentOn[] = "went on\n";

ChildResult AssertWith(const std::string& mode, const std::string& log_file = {}) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=" + mode};
  if (!log_file.empty()) {
    options.environment.push_back("VELORIN_SAFE_ASSERT_LOGFILE=" + log_file);
  }
  return RunChild({"assert", "a == b"}, options);
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

class TemporaryFile {
 public:
  TemporaryFile() {
    char name[] = "/tmp/core_common_unix_XXXXXX";
    const int descriptor = mkstemp(name);
    EXPECT_GE(descriptor, 0);
    EXPECT_EQ(write(descriptor, "before\n", 7), 7);
    Common::SafeClose(descriptor);
    name_ = name;
  }
  ~TemporaryFile() { unlink(name_.c_str()); }

  const std::string& GetName() const { return name_; }
  std::string Read() const {
    std::ifstream file(name_);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  }

 private:
  std::string name_;
};

TEST(SafeAssertSettings, StartWithLogAndStackOnStandardError) {
  for (const bool is_set : {false, true}) {
    ChildOptions options;
    if (is_set) options.environment = {"VELORIN_SAFE_ASSERT="};
    const ChildResult result = RunChild({"assert", "a == b"}, options);
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
      {"log", true, false},
      {"  log\tevent  debug break msgbox ", true, false},
      {"abort", false, true},
      {" ", false, false},
      {"nonsense", false, false},
      {"log nonsense abort", false, false},
      {"log,abort", false, false},
      {"Log abort", false, false},
      {"0x20", false, true},
      {"0X24", true, true},
      {"4", true, false},
      {"deb", false, true},  // 0xdeb: everything but log and msgbox
      {"0", false, false},
      {"0x", false, false},
      {"0x4 ", false, false},
      {"-4", false, false},
      {"ffffffff", false, false},
      {"10000000000000004", false, false},
      // 127 characters count.
      {"log  " + blanks + "abort", true, true},
      {"log   " + blanks + "abort", false, false},
      {"log       " + blanks + "abort", true, false},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.mode);
    const ChildResult result = AssertWith(row.mode);
    EXPECT_EQ(result.err, row.logs ? kText : "");
    EXPECT_EQ(result.status, row.aborts ? -SIGABRT : 0);
    EXPECT_EQ(result.out, row.aborts ? "" : kWentOn);
  }
}

TEST(SafeAssertSettings, ChooseTheTargetOfTheLog) {
  const TemporaryFile file;
  EXPECT_EQ(AssertWith("log", file.GetName()).err, "");
  EXPECT_EQ(AssertWith("4", file.GetName()).err, "");
  EXPECT_EQ(file.Read(), std::string("before\n") + kText + kText);
  EXPECT_EQ(AssertWith("log", "stderr").err, kText);
  EXPECT_EQ(AssertWith("log", "stdout").out, std::string(kText) + kWentOn);
  EXPECT_EQ(AssertWith("log", "/nonexistent/file").err, kText);
  const std::string pipe = file.GetName() + ".pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(AssertWith("log", pipe).err, kText);
  unlink(pipe.c_str());
  // Also when the mode stays as it starts.
  const std::size_t before = file.Read().size();
  EXPECT_EQ(AssertWith("", file.GetName()).err, "");
  ExpectTextAndStack(file.Read().substr(before));

  // Without "log" the file isn't even made.
  const std::string unused = file.GetName() + ".unused";
  EXPECT_EQ(AssertWith("abort", unused).status, -SIGABRT);
  EXPECT_NE(access(unused.c_str(), F_OK), 0);
}

TEST(SafeAssertSettings, LogFileIsClosedAtExitAndLaterReportsReachStandardError) {
  for (const char* const mode : {"log", "log log"}) {
    SCOPED_TRACE(mode);
    const TemporaryFile file;
    ChildOptions options;
    options.environment = {std::string("VELORIN_SAFE_ASSERT=") + mode,
                           "VELORIN_SAFE_ASSERT_LOGFILE=" + file.GetName()};
    const ChildResult result = RunChild({"at-exit"}, options);
    EXPECT_EQ(file.Read(), "before\nAssertion failed: early, file probe.cpp, line 7\n");
    EXPECT_EQ(result.err, "Assertion failed: late, file probe.cpp, line 7\n");
  }
}

TEST(SafeAssertSettings, AreReadAtTheFirstReportOnly) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=log"};
  const ChildResult result = RunChild({"twice"}, options);
  EXPECT_EQ(result.err,
            "Assertion failed: first, file probe.cpp, line 7\n"
            "Assertion failed: second, file probe.cpp, line 7\n");
  EXPECT_EQ(result.status, 0);
}

TEST(SafeAssertSettings, AnAssertionWhileTheyAreReadGoesByTheStartingValues) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=log"};
  const ChildResult result = RunChild({"while-reading"}, options);
  EXPECT_TRUE(result.err.starts_with("Assertion failed: inner, file getenv.cpp, line 1\n"))
      << result.err;
  EXPECT_TRUE(result.err.ends_with("Assertion failed: outer, file probe.cpp, line 7\n"))
      << result.err;
  EXPECT_EQ(result.out, kWentOn);
}

TEST(SafeAssertSettings, AreReadOnceByThreadsThatReportTogether) {
  const std::string left = "Assertion failed: left, file probe.cpp, line 7\n";
  const std::string right = "Assertion failed: right, file probe.cpp, line 7\n";
  for (int i = 0; i < 5; ++i) {
    const TemporaryFile file;
    ChildOptions options;
    options.environment = {"VELORIN_SAFE_ASSERT=log",
                           "VELORIN_SAFE_ASSERT_LOGFILE=" + file.GetName()};
    const ChildResult result = RunChild({"two-threads"}, options);
    const std::string text = file.Read().substr(7);
    EXPECT_TRUE(text == left + right || text == right + left) << text;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, kWentOn);
  }
}

TEST(SafeAssert, EvaluatesOnceQuotesTheExpressionAndKeepsErrno) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=log"};
  const ChildResult result = RunChild({"macro"}, options);
  EXPECT_TRUE(std::regex_match(
      result.err, std::regex("Assertion failed: Probe::CountAndFail\\(evaluations\\) == 1, file "
                             "tests/core/common/unix/child_main\\.cpp, line [0-9]+\n")))
      << result.err;
  EXPECT_EQ(result.out, "1 1\nwent on\n");

  // Assertions that are off fail to open the log on the way.
  options.environment = {"VELORIN_SAFE_ASSERT=log nonsense",
                         "VELORIN_SAFE_ASSERT_LOGFILE=/nonexistent/file"};
  EXPECT_EQ(RunChild({"macro"}, options).out, "1 1\nwent on\n");
}

TEST(SafeAssert, CutsLongTexts) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=log"};
  const std::string expression(5000, 'x');
  EXPECT_EQ(RunChild({"assert", expression}, options).err,
            "Assertion failed: " + expression.substr(0, 539 - 18) + "\n");
  EXPECT_EQ(RunChild({"error", expression}, options).err.size(), 4095u + 1);
}

TEST(SafeAssertError, NamesProgramPlaceMessageAndSystemError) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=log"};
  const std::string place = "core_common_unix_child: probe.cpp:9: ";
  const std::string reason = "Unexpected error: No such file or directory.\n";
  EXPECT_EQ(RunChild({"error", "Opening"}, options).err, place + "Opening: " + reason);
  EXPECT_EQ(RunChild({"error", ""}, options).err, place + reason);
  EXPECT_EQ(RunChild({"error-without-message"}, options).err, place + reason);
}

// The trace registers its hook before main, in a program that never names it.
TEST(SafeAssertEvent, GoesToTheTrace) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=event"};
  const std::string text = "5 0 27 Assertion failed: a == b, file probe.cpp, line 7\n";
  EXPECT_EQ(RunChild({"event", "a == b"}, options).out, text + kWentOn);

  options.environment = {"VELORIN_SAFE_ASSERT=event stack"};
  const ChildResult result = RunChild({"event", "a == b"}, options);
  EXPECT_EQ(result.err, "");
  ASSERT_TRUE(result.out.starts_with(text + "5 0 27 "));
  const std::string stack = result.out.substr(text.size() + 7);
  EXPECT_GE(std::count(stack.begin(), stack.end(), '|'), 3) << stack;
  EXPECT_NE(stack.find("Probe::Violate(char const*)"), std::string::npos) << stack;
  EXPECT_NE(stack.find("( main "), std::string::npos) << stack;
  EXPECT_TRUE(stack.ends_with(std::string("]\n") + kWentOn)) << stack;
}

TEST(SafeAssertEvent, OfASinkThatAssertsEndsInTheLog) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=event log"};
  const ChildResult result = RunChild({"event-asserts", "a == b"}, options);
  EXPECT_EQ(result.out, std::string("5 0 27 ") +
                            "Assertion failed: a == b, file probe.cpp, line 7\n" + kWentOn);
  EXPECT_EQ(result.err, std::string(kText) + "Assertion failed: in sink, file probe.cpp, line 7\n");
}

TEST(SafeAssertEvent, OfASinkThatThrowsEndsThere) {
  ChildOptions options;
  options.environment = {"VELORIN_SAFE_ASSERT=event log"};
  const ChildResult result = RunChild({"event-throws", "a == b"}, options);
  EXPECT_EQ(result.out, std::string("5 0 27 ") + kText + kWentOn);
  EXPECT_EQ(result.err, kText);
  EXPECT_EQ(result.status, 0);
}

TEST(SafeAssertBreak, StopsOnlyInADebugger) {
  const struct {
    const char* mode;
    const char* what;
    int stops;
  } cases[] = {
      {"break", "assert", 1}, {"msgbox", "assert", 1}, {"break msgbox", "assert", 1},
      {"break", "error", 1},  {"msgbox", "error", 0},  {"debug", "assert", 0},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.mode) + " " + row.what);
    ChildOptions options;
    options.environment = {std::string("VELORIN_SAFE_ASSERT=") + row.mode};
    EXPECT_EQ(RunChild({row.what, "x"}, options).status, 0);
    options.traced = true;
    const ChildResult result = RunChild({row.what, "x"}, options);
    EXPECT_EQ(result.stops, row.stops);
    EXPECT_EQ(result.out, kWentOn);
  }
}

TEST(SafeAssertTexts, OfThePrimitives) {
  ChildOptions options;
  // The thread sanitizer isn't to report the misuse as well.
  options.environment = {"VELORIN_SAFE_ASSERT=log", "TSAN_OPTIONS=report_mutex_bugs=0"};
  ChildResult result = RunChild({"unlock"}, options);
  EXPECT_TRUE(result.err.starts_with(
      "Assertion failed: ret == 0 && \"Probably unlock from non-owner thread!\", file "
      "core/common/unix/mutex.cpp, line "))
      << result.err;
  EXPECT_EQ(result.out, kWentOn);

  result = RunChild({"destroy-event"}, options);
  EXPECT_TRUE(
      result.err.starts_with("Assertion failed: EVENT_DATA.Waiters->empty() || !\"Destroying Event "
                             "which is being Wait()'ed for\", file core/common/unix/event.cpp, "))
      << result.err;
  EXPECT_EQ(result.out, kWentOn);

  result = RunChild({"no-slot"}, options);
  const std::regex line(
      "Assertion failed: key != Common::Tls::OUT_OF_INDEXES, file core/common/unix/tls\\.cpp, line "
      "[0-9]+\n");
  EXPECT_EQ(std::distance(std::sregex_iterator(result.err.begin(), result.err.end(), line), {}), 3)
      << result.err;
  EXPECT_EQ(result.out, "0\n0\n0\nwent on\n");
}

}  // namespace
