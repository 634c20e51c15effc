#include "enterprise/common/dml/local_post_office.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/enterprise/common/dml/scripted_post_office.h"
#include "tests/support/trace_recorder.h"

// A store core that writes down what happens to it.

namespace {

std::string events;
Common::String opened;       // the connection string
Common::String resolved;     // what the customizer says at the close
Common::Error create_error;  // of DML_Create
Common::Error delete_error;  // of DML_Delete
bool office_fails = false;
Dml::StoreCustomizer* customizer = nullptr;

class LoggedOffice final : public Dml::ScriptedPostOffice {
 public:
  LoggedOffice() { last = this; }
  ~LoggedOffice() override { events += "~office "; }
  static inline LoggedOffice* last = nullptr;
};

class LoggedDispatcher final : public Dml::CoreDispatcher {
 public:
  std::unique_ptr<Dml::PostOffice> CreatePostOffice() override {
    events += "office ";
    if (office_fails) throw Common::Error(0x777, Common::LineTag{});
    return std::make_unique<LoggedOffice>();
  }
};

class Wrapped final : public Dml::CoreObject {};

}  // namespace

void DML_Create(const Common::String& connection_string, Dml::StoreCustomizer* given_customizer,
                Por::Construction::UnitFactory* factory, Dml::CoreDispatcher** dispatcher,
                Common::Error& error) {
  events += "create ";
  EXPECT_FALSE(error.IsFailure());
  EXPECT_NE(factory, nullptr);
  opened = connection_string;
  customizer = given_customizer;
  error = create_error;
  if (!error.IsFailure()) *dispatcher = new LoggedDispatcher;
}

void DML_Delete(Dml::CoreDispatcher** dispatcher, Common::Error& error) {
  events += "delete ";
  EXPECT_FALSE(error.IsFailure());
  // The customizer works to the end.
  resolved = customizer->ResolveConnectionString()->GetText();
  auto object = std::make_unique<Wrapped>();
  Dml::CoreObject* const plain = object.get();
  EXPECT_EQ(customizer->CustomizeStore(std::move(object)).get(), plain);
  delete static_cast<LoggedDispatcher*>(*dispatcher);
  *dispatcher = nullptr;
  error = delete_error;
}

namespace Dml {
namespace {

class LocalPostOffice : public ::testing::Test {
 protected:
  LocalPostOffice() {
    events.clear();
    create_error = delete_error = Common::Error();
    office_fails = false;
  }
  // The code that CreatePostOffice raises.
  static std::uint32_t Fail() {
    try {
      CreatePostOffice(u"x");
    } catch (const Common::Error& error) {
      return error.GetCode();
    }
    return 0;
  }
};

TEST_F(LocalPostOffice, TheOfficeGoesBeforeTheStoreCloses) {
  const Common::String odd(u"sqlite:\0 \u00e4", 10);
  for (const Common::String& text : {odd, Common::String()}) {
    events.clear();
    std::unique_ptr<PostOffice> office = CreatePostOffice(text);
    EXPECT_EQ(events, "create office ");
    EXPECT_EQ(opened, text);
    office.reset();
    EXPECT_EQ(events, "create office ~office delete ");
    EXPECT_EQ(resolved, text);
  }
}

TEST_F(LocalPostOffice, AStoreThatDidNotOpenIsNotClosedAndOneWithoutAnOfficeIs) {
  const TestSupport::TraceRecorder traces;
  delete_error = Common::Error(0x40003, Common::LineTag{});
  office_fails = true;
  EXPECT_EQ(Fail(), 0x777u);
  EXPECT_EQ(events, "create office delete ");
  EXPECT_EQ(traces.Codes(), "4 4 3\n");
  events.clear();
  create_error = Common::Error(0x40007, u"no store", Common::LineTag{});
  EXPECT_EQ(Fail(), 0x40007u);
  EXPECT_EQ(events, "create ");
}

TEST_F(LocalPostOffice, ForwardsItsOperations) {
  const std::unique_ptr<PostOffice> office = CreatePostOffice(u"x");
  ScriptedPostOffice& inner = *LoggedOffice::last;
  const auto job = std::make_shared<TestJob>();
  const auto reader = std::make_shared<NotingReader>();
  Told told;
  inner.work = [&](std::shared_ptr<ReportReader> given, Async::ActionHandler& handler) {
    EXPECT_EQ(given, reader);
    EXPECT_EQ(&handler, &told);
    return job;
  };
  std::unique_ptr<Subscription> subscription;
  ViewSpec spec;
  spec.pattern = MakeUnit(1);
  EXPECT_EQ(office->Report(Core::EntryPoint(), spec, reader, told), job);
  EXPECT_EQ(inner.asked_spec.pattern, spec.pattern);
  EXPECT_EQ(inner.asked_subscription, nullptr);
  EXPECT_EQ(office->Subscribe(Core::EntryPoint(), spec, reader, subscription, told), job);
  EXPECT_EQ(inner.asked_subscription, &subscription);
}

}  // namespace
}  // namespace Dml
