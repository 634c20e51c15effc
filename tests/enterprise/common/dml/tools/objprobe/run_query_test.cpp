#include "enterprise/common/dml/tools/objprobe/run_query.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "tests/support/client_libraries.h"
#include "tests/support/trace_recorder.h"

namespace ObjProbe {
namespace {

using TestSupport::client_libraries;

struct Outcome {
  std::uint32_t status;
  std::string text;
};

// Runs the program's part behind its command line.
Outcome Answer(std::vector<const char*> words) {
  words.insert(words.begin(), "objprobe");
  Arguments arguments(static_cast<int>(words.size()), words.data());
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(arguments.Parse());
  const std::uint32_t status = RunQuery(arguments);
  StandardOutput().Flush();
  return {status, ::testing::internal::GetCapturedStdout()};
}

TEST(RunQuery, StartsWhatTheQueryNeedsAndStopsTheClientLast) {
  const TestSupport::TraceRecorder traces;
  const struct {
    std::vector<const char*> words;
    std::uint32_t status;
    const char* events;
  } cases[] = {
      // A store needs no security client, but the IPC client runs all the same.
      {{"/nowhere/s.db", "u", "p", "DB", "t"}, 0x40011, "init deinit "},
      // What can't be read is found before any connection.
      {{"h", "u", "p", "HUB", "pattern", "Foo("}, 6, "init deinit "},
      {{"h", "u", "p", "DML", "t", "report"},
       5,
       "init security local connect(46) ~browser ~point deinit "},
      {{"h", "u", "p", "VLT", "t"},
       6,
       "init security binder bind(h,u,p) connect(34) ~browser ~binder ~point deinit "},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.events);
    client_libraries = {};
    EXPECT_EQ(Answer(expected.words).status, expected.status);
    EXPECT_EQ(client_libraries.events, expected.events);
  }
}

TEST(RunQuery, AClientThatDoesNotStartIsTheEnd) {
  TestSupport::TraceRecorder traces;
  for (const char* const service : {"HUB", "DB"}) {
    client_libraries = {};
    client_libraries.init_error = Common::Error(0xAD0101, "no room", Common::LineTag{});
    const Outcome outcome = Answer({"h", "u", "p", service, "t"});
    EXPECT_EQ(outcome.status, 0xAD0101u);
    EXPECT_EQ(outcome.text.substr(0, 24), "Error 0xad0101: no room\n");
    EXPECT_EQ(outcome.text.back(), '\n');
    EXPECT_EQ(client_libraries.events, "init deinit ");
  }
  EXPECT_EQ(traces.Codes(), "");
}

TEST(RunQuery, ASecurityClientThatDoesNotStartIsTheEndOfServicesOnly) {
  const TestSupport::TraceRecorder traces;
  client_libraries = {};
  client_libraries.security_status = 1;
  const Outcome outcome = Answer({"h", "u", "p", "HUB", "t"});
  EXPECT_EQ(outcome.status, 0x2740004u);
  EXPECT_EQ(outcome.text.substr(0, 19), "Error 0x2740004: An");
  EXPECT_EQ(client_libraries.events, "init security deinit ");
  EXPECT_NE(client_libraries.security_started_from, 0u);
  EXPECT_EQ(traces.Errors().size(), 1u);
}

}  // namespace
}  // namespace ObjProbe
