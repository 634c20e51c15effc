#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "enterprise/common/ipc/call.h"
#include "enterprise/common/ipc/utils.h"
#include "tests/enterprise/common/ipc/scripted_access_point.h"
#include "tests/enterprise/serialize/packet_support.h"
#include "tests/support/trace_recorder.h"

namespace Binding {

// A record with one field. A copy of the value 99 fails.
struct Point {
  explicit Point(unsigned int initial = 0) : x(initial) {}
  Point(const Point& other) : x(other.x) {
    if (x == 99) throw Common::Error(0x123, Common::LineTag{});
  }
  unsigned int x;
};

}  // namespace Binding

template <>
struct Serialization::RecordFormat<Binding::Point> : PlainRecordFormat {
  static void Write(Serializer& serializer, const Binding::Point& point) {
    Binding::WriteElement(serializer, "x", point.x);
  }
  static void Read(Deserializer& deserializer, Binding::Point& point) {
    Binding::ReadField(deserializer, "x", point.x);
  }
};

namespace Binding {
namespace {

using namespace Serialization::Packets;
using Detail::Parameter;
using Detail::RequestBase;
using Points = std::vector<Point>;

MethodInfo TestMethod() {
  MethodInfo method;
  method.component_id = 7;
  method.method_number = 3;
  method.interface_name = "I";
  method.method_name = "M";
  method.interface_version = 5;
  return method;
}

std::string WriteRequest(const Request& request) {
  return WriteElements([&](Serialization::Serializer& to) { request.Serialize(to); });
}

// What stands in the open element: its text and its children.
std::string Copy(Serialization::Deserializer& from) {
  std::string result;
  from.Read(Serialization::MetaInfo(), result);
  for (;;) {
    const Serialization::MetaInfo next = from.PeekMetaInfo();
    if (next.name.empty()) return result;
    from.BeginElement(next);
    result.append("<").append(next.name).append(">").append(Copy(from));
    result.append("</").append(next.name).append(">");
    from.EndElement(next);
  }
}

std::string Reply(const std::string& results) {
  return std::string("<reply_I_M><result>AQ==</result>").append(results).append("</reply_I_M>");
}

TEST(Request, TellsItsMethodAndGoesOutWithTheValuesOfItsMaking) {
  Point point(2);
  Points points{Point(3), Point(4)};
  const std::unique_ptr<Request> request =
      BuildRequest<unsigned int, Point&, Points&>(TestMethod(), {"a", "b", "c"}, 1u, point, points);
  EXPECT_EQ(request->GetComponentId(), 7u);
  EXPECT_EQ(request->GetMethodNumber(), 3u);
  EXPECT_EQ(request->GetInterfaceVersion(), 5u);
  EXPECT_EQ(request->GetCategory(), 0xFFFFFFFFFFFFFFFFu);
  EXPECT_EQ(request->GetInterface("PN7Binding6Detail11RequestBaseE"),
            static_cast<RequestBase*>(request.get()));
  request->SetProperty("k", u"one");
  request->SetProperty("j", u"");
  request->SetProperty("k", u"two");
  EXPECT_EQ(request->GetProperties(), (PropertyMap{{"j", u""}, {"k", u"two"}}));

  point.x = 9;
  points.clear();
  EXPECT_EQ(WriteRequest(*request),
            "<request_I_M><a>1</a><b><x>2</x></b><c><vector><item><x>3</x></item>"
            "<item><x>4</x></item></vector></c></request_I_M>");
  // Its own reader sees the same, in the version that it is given.
  const std::unique_ptr<Serialization::Deserializer> reader = request->CreateDeserializer(6);
  EXPECT_EQ(reader->GetSubjectVersion(), 6u);
  EXPECT_EQ(Copy(*reader), WriteRequest(*request));

  const TestSupport::TraceRecorder traces;
  EXPECT_EQ(BuildRequest<const Point&>(TestMethod(), {"p"}, Point(99)), nullptr);
  EXPECT_EQ(traces.Codes(), "1 0 123\n");
}

TEST(Request, ItsOwnReaderIsOfItsCategory) {
  class Mixed final : public RequestBase {
   public:
    using RequestBase::RequestBase;
    void WriteArguments(Serialization::Serializer& to) const override {
      Serialization::MetaInfo of3("three");
      of3.category = 3;
      to.Write(of3, 1u);
      to.Write(Serialization::MetaInfo("all"), 2u);
    }
    void ReadResults(Serialization::Deserializer&) override {}
  };
  MethodInfo method = TestMethod();
  const struct {
    std::uint64_t category;
    const char* first;
  } cases[] = {{method.category, "all"}, {4, "all"}, {3, "three"}, {0x100000003, "three"}};
  for (const auto& expected : cases) {
    method.category = expected.category;
    const std::unique_ptr<Serialization::Deserializer> reader = Mixed(method).CreateDeserializer(0);
    reader->BeginElement(Serialization::MetaInfo("request_I_M", true));
    EXPECT_EQ(reader->PeekMetaInfo().name, expected.first);
    unsigned int all = 0;
    reader->Read(Serialization::MetaInfo("all"), all);
    EXPECT_EQ(all, 2u);
    EXPECT_EQ(reader->PeekMetaInfo().name, expected.first == std::string("all") ? "" : "all");
  }
}

TEST(Request, ParametersTravelByTheirModes) {
  const std::string refusal =
      "Assertion failed: !\"Value is not encryptable but encyption was requested\", "
      "file enterprise/common/ipc/utils, line ";
  const struct {
    std::uint32_t mode;
    const char* request;  // "+" travels, "-" doesn't, "!" is refused
    const char* reply;
  } cases[] = {{0, "+", "+"}, {1, "+", "-"}, {2, "-", "+"}, {3, "+", "+"}, {4, "!", "!"},
               {5, "!", "-"}, {6, "-", "!"}, {7, "!", "!"}, {8, "-", "-"}, {0xFFFFFFFC, "-", "-"}};
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.mode);
    const TestSupport::TraceRecorder traces;
    unsigned int value = 5;
    Detail::RequestImpl<void(unsigned int&, unsigned int)> request(
        TestMethod(), Parameter<unsigned int&>(value, "v", expected.mode),
        Parameter<unsigned int>(6, "w", 6));
    EXPECT_EQ(WriteRequest(request), *expected.request == '+'
                                         ? "<request_I_M><v>5</v></request_I_M>"
                                         : "<request_I_M></request_I_M>");
    request.ReadReply(*OpenElements(Reply("<v>8</v><w>8</w>")));
    EXPECT_EQ(value, *expected.reply == '+' ? 8u : 5u);
    std::vector<std::string> refusals;
    if (*expected.request == '!') refusals.push_back(refusal + "313");
    if (*expected.reply == '!') refusals.push_back(refusal + "395");
    EXPECT_EQ(traces.AssertionTexts(), refusals);
  }
}

TEST(Request, ReadsResultsStrictlyAndDropsTheirFailures) {
  const struct {
    const char* results;
    const char* values;  // b, c, d
  } cases[] = {
      {"<b><x>7</x></b><c><vector><item><x>8</x></item></vector></c><d>9</d><e>1</e>", "7 [8] 9"},
      {"", "1 [2] 3"},
      // A miss uses up the child that stands there.
      {"<c><vector></vector></c><d>9</d>", "1 [2] 3"},
      {"<x></x><c><vector></vector></c><d>9</d>", "1 [] 9"},
      {"<b><x>7</x></b><d>9</d>", "7 [2] 3"},
      // Inside, what fails costs only itself.
      {"<b></b><c></c><d>9</d>", "1 [2] 9"},
      {"<b><y>1</y><x>7</x></b><c><vector><item></item><item><x>5</x></item><z></z><item></item>"
       "</vector></c><d>x</d>",
       "7 [0 5] 0"},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.results);
    Point b(1);
    Points c{Point(2)};
    unsigned int d = 3;
    const std::unique_ptr<Request> request =
        BuildRequest<unsigned int, Point&, Points&, unsigned int&>(
            TestMethod(), {"a", "b", "c", "d"}, 0u, b, c, d);
    request->ReadReply(*OpenElements(Reply(expected.results)));
    std::string values = std::to_string(b.x) + " [";
    for (const Point& point : c) values += std::to_string(point.x) + " ";
    if (!c.empty()) values.pop_back();
    EXPECT_EQ(values + "] " + std::to_string(d), expected.values);
  }
}

TEST(Request, ReadsResultsOnlyBehindASuccessfulResult) {
  const struct {
    const char* reply;  // its beginning
    std::uint32_t code;
    unsigned int value;
  } cases[] = {
      {"<reply_I_M><result></result>", 0, 8},
      // Code 0xFC0017, text "gone".
      {"<reply_I_M><result>ARcA/AAAAAAAAAAAAGdvbmUAAA==</result>", 0, 5},
      // The envelope is searched, its "result" is not.
      {"<x></x><reply_I_M><result>AQ==</result>", 0, 8},
      {"<reply_I_M><x></x><result>AQ==</result>", 0x9C0002, 5},
      {"<reply_I_M><result>A</result>", 0x9C0004, 5},
      {"<reply_I_N></reply_I_N><reply_I_M>", 0x9C0002, 5},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.reply);
    unsigned int value = 5;
    const std::unique_ptr<Request> request =
        BuildRequest<unsigned int&>(TestMethod(), {"v"}, value);
    const std::unique_ptr<Serialization::Deserializer> from =
        OpenElements(std::string(expected.reply).append("<v>8</v></reply_I_M><end>1</end>"));
    EXPECT_EQ(CodeOf([&] { request->ReadReply(*from); }), expected.code);
    EXPECT_EQ(value, expected.value);
    // Also then the envelope has been left.
    bool end = false;
    from->Read(Serialization::MetaInfo("end"), end);
    EXPECT_TRUE(end);
  }
  // Without variables, too, the "result" is read.
  const std::unique_ptr<Request> request = BuildRequest<unsigned int>(TestMethod(), {"v"}, 1u);
  request->ReadReply(*OpenElements(Reply("")));
  const auto read = [&] { request->ReadReply(*OpenElements("<reply_I_M></reply_I_M>")); };
  EXPECT_EQ(CodeOf(read), 0x9C0002u);
}

TEST(Call, KeepsNothingOfTheRequest) {
  class Tracked final : public RequestBase {
   public:
    explicit Tracked(std::string& events) : RequestBase(TestMethod()), events_(events) {}
    ~Tracked() override { events_ += "~request "; }
    void WriteArguments(Serialization::Serializer&) const override {}
    void ReadResults(Serialization::Deserializer&) override { events_ += "results "; }

   private:
    std::string& events_;
  };
  ScriptedAccessPoint point;
  point.reply = Reply("");
  const auto call = [&] {
    point.events.clear();
    return Call(point, std::make_unique<Tracked>(point.events)).GetCode();
  };
  EXPECT_EQ(call(), 0u);
  EXPECT_EQ(point.events, "create run results ~job ~request ");
  point.run_error = Common::Error(0x78, Common::LineTag{});
  EXPECT_EQ(call(), 0x78u);
  EXPECT_EQ(point.events, "create run ~job ~request ");
  point.create_error = Common::Error(0x79, Common::LineTag{});
  EXPECT_EQ(call(), 0x79u);
  EXPECT_EQ(point.events, "create ~request ");
  EXPECT_EQ(Call(point, nullptr).GetCode(), 0x77u);
}

}  // namespace
}  // namespace Binding
