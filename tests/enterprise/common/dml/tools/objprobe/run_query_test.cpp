#include "enterprise/common/dml/tools/objprobe/run_query.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/enterprise/common/dml/tools/objprobe/standard_input.h"
#include "tests/enterprise/common/por/make_unit.h"
#include "tests/support/client_libraries.h"
#include "tests/support/scripted_service.h"
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
  return {status, ::testing::internal::GetCapturedStdout()};
}

TEST(RunQuery, StartsWhatTheQueryNeedsAndStopsTheClientLast) {
  const struct {
    std::vector<const char*> words;
    std::uint32_t client_error;
    unsigned int security_status;
    std::uint32_t status;
    const char* events;
  } cases[] = {
      // A store needs no security client, but the IPC client runs all the same.
      {{"/nowhere/s.db", "u", "p", "DB", "t"}, 0, 1, 0x40011, "init deinit "},
      // What can't be read is found before any connection.
      {{"h", "u", "p", "HUB", "pattern", "Foo("}, 0, 0, 6, "init deinit "},
      {{"h", "u", "p", "DML", "t", "report"},
       0,
       0,
       5,
       "init security local connect(46) ~browser ~point deinit "},
      {{"h", "u", "p", "VLT", "t"},
       0,
       0,
       6,
       "init security binder bind(h,u,p) connect(34) ~browser ~binder ~point deinit "},
      {{"h", "u", "p", "HUB", "t"}, 0, 1, 0x2740004, "init security deinit "},
      {{"h", "u", "p", "HUB", "t"}, 0xAD0101, 0, 0xAD0101, "init deinit "},
      {{"h", "u", "p", "DB", "t"}, 0xAD0101, 0, 0xAD0101, "init deinit "},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.events);
    const TestSupport::TraceRecorder traces;
    client_libraries = {};
    client_libraries.init_error = Common::Error(expected.client_error, "text", Common::LineTag{});
    client_libraries.security_status = expected.security_status;
    const Outcome outcome = Answer(expected.words);
    EXPECT_EQ(outcome.status, expected.status);
    std::ostringstream error;
    error << "Error 0x" << std::hex << expected.status << ": ";
    EXPECT_NE(outcome.text.find(error.str()), std::string::npos);
    EXPECT_EQ(outcome.text.back(), '\n');
    EXPECT_EQ(client_libraries.events, expected.events);
    // A client that doesn't start has told that itself.
    EXPECT_EQ(traces.Errors().empty(), expected.client_error != 0);
  }
}

// An object as services send it; its key is that of the program's documentation.
Por::SharedUnit MakeObject() {
  return Por::Test::With(Por::Test::DWord(5), "PrimaryKey", Por::Test::Guid({}));
}

// It asks for the objects of the type "t", with the usual limit, and says where it was made.
void ExpectQuery(const TestSupport::ServiceCall& call) {
  using Por::Util::UnitEqual;
  const bool is_channel = call.GetMethod() == "AddInterest";
  const Por::SharedUnit pattern = is_channel ? call.GetUnit({"spec", "Interest", "Pattern"})
                                             : call.GetUnit({"specification", "Pattern"});
  const Por::SharedUnit options = is_channel ? call.GetUnit({"spec", "Interest", "Options"})
                                             : call.GetUnit({"specification", "Options"});
  ASSERT_NE(pattern, nullptr);
  ASSERT_NE(options, nullptr);
  EXPECT_TRUE(
      UnitEqual(*pattern, *Por::Test::With(Por::Test::Composite(), "Is", Por::Test::Text(u"t"))));
  const auto value = [](const Por::View::Unit& unit, const char* name) -> const Por::View::Unit& {
    return Por::Util::GetProperty(unit, Por::Name::FromImmortal(name)).GetValue();
  };
  EXPECT_TRUE(UnitEqual(value(*options, "LimitOptions"), *Por::Test::DWord(2000)));
  EXPECT_TRUE(UnitEqual(value(value(*options, "EntryPoint"), "File"),
                        *Por::Test::Text(u"enterprise/common/dml/tools/objprobe/dml")));
}

// The character is there from the beginning, so a listen ends behind its snapshot.
TEST(RunQuery, TakesLeaveOfTheServiceBeforeTheClientStops) {
  using TestSupport::ScriptedService;
  const struct {
    std::uint32_t version;
    std::vector<const char*> words;
    const char* element;
    const char* log;
  } cases[] = {
      {1, {"h", "u", "p", "DML", "t", "report"}, "object", "OpenStaticView "},
      {2, {"h", "u", "p", "DML", "t", "report"}, "object", "OpenStaticView "},
      {1,
       {"h", "u", "p", "DML", "t"},
       "created",
       "OpenDynamicView AcquireUpdates CloseView CloseView "},
      {2,
       {"h", "u", "p", "DML", "t"},
       "created",
       "Subscribe ReadSubscription AddInterest RemoveInterest RemoveInterest Unsubscribe "},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.log);
    client_libraries = {};
    std::string log;
    {
      ScriptedService service;
      service.interface_version = expected.version;
      service.AnswerFarewells();
      TestSupport::ServiceCallPtr query;
      const auto answer = [&](const char* method, const std::string& results) {
        service.On(method, [&query, results](const TestSupport::ServiceCallPtr& call) {
          query = call;
          call->Reply(results);
        });
      };
      answer("OpenStaticView", TestSupport::OpenViewResults({MakeObject(), Por::Test::Nil()}));
      answer("OpenDynamicView", TestSupport::OpenViewResults({MakeObject()}, 8));
      service.Answer("Subscribe", TestSupport::SubscribeResults(3));
      answer("AddInterest", TestSupport::AddInterestResults(3, 4, {MakeObject()}));
      client_libraries.make_access_point = [&] { return service.Connect(); };
      client_libraries.in_deinit = [&] { log = service.GetLog(); };
      StandardInput input;
      input.Type();
      const Outcome outcome = Answer(expected.words);
      EXPECT_EQ(outcome.status, 0u);
      const std::string head = std::string("<").append(expected.element) +
                               " id=\"00000000-0000-0000-0000-000000000000\"";
      EXPECT_EQ(outcome.text.substr(0, head.size()), head);
      // An object without a key leaves the beginning of its head, and that comes out.
      EXPECT_EQ(outcome.text.ends_with("\n<object id=\""),
                expected.element == std::string("object"));
      ASSERT_NE(query, nullptr);
      ExpectQuery(*query);
    }
    EXPECT_EQ(log, expected.log);
    EXPECT_EQ(client_libraries.events, "init security local connect(46) ~browser deinit ");
    client_libraries = {};
  }
}

}  // namespace
}  // namespace ObjProbe
