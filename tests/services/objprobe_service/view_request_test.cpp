#include "services/objprobe_service/view_request.h"

#include "enterprise/common/por/unit_operations.h"
#include "platform/store/sqlite_store_writer.h"
#include "services/objprobe_service/reply_writer.h"
#include "services/objprobe_service/service_error.h"
#include "services/objprobe_service/view_service.h"
#include "tests/enterprise/serialize/packet_support.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/services/objprobe_service/service_client.h"
#include "tests/support/trace_recorder.h"

namespace ObjProbeService {

namespace {

using Serialization::Packets::kBegin;
using Serialization::Packets::kEnd;

// The DWord 7 by its stream.
const std::string kSeven = "<is_empty>0</is_empty><value>VQYHAAAARQ==</value>";
const std::string kNull = "<is_empty>1</is_empty>";

std::vector<unsigned char> MakePacket(const std::string& elements) {
  const std::string text = std::string(kBegin).append(elements).append(kEnd);
  return {text.begin(), text.end()};
}
std::vector<unsigned char> MakeRequest(ViewMethod method, const std::string& arguments) {
  const std::string name = std::string("request_ViewManager_").append(GetMethodName(method));
  return MakePacket(
      std::string("<").append(name).append(">").append(arguments).append("</").append(name + ">"));
}
std::string MakeSpecText(const std::string& pattern, const std::string& options) {
  return std::string("<specification><Pattern>")
      .append(pattern)
      .append("</Pattern><Options>")
      .append(options)
      .append("</Options></specification>");
}

// One whose pattern has this value.
std::string MakeSpecOf(const std::string& value) {
  return MakeSpecText("<is_empty>0</is_empty><value>" + value + "</value>", kNull);
}

TEST(ViewRequest, TellsWhatTheMethodNeeds) {
  ViewRequest request =
      ReadViewRequest(ViewMethod::kOpenStaticView,
                      MakeRequest(ViewMethod::kOpenStaticView, MakeSpecText(kSeven, kNull)));
  EXPECT_EQ(request.spec.options, nullptr);
  EXPECT_TRUE(
      Por::Util::UnitEqual(*request.spec.pattern, *Por::GetStaticUnitFactory()->CreateDWord(7)));
  // Whatever else is there, and wherever it is, doesn't matter.
  request = ReadViewRequest(
      ViewMethod::kAddInterest,
      MakeRequest(
          ViewMethod::kAddInterest,
          "<topic><ID><Subscriber>9</Subscriber></ID></topic><spec><More>1</More>"
          "<Interest version=\"2\"><Options>" +
              kSeven + "</Options><Pattern>" + kNull +
              "</Pattern><traits></traits></Interest><Subscription>3</Subscription></spec>"));
  EXPECT_EQ(request.subscriber, 3U);
  EXPECT_EQ(request.spec.pattern, nullptr);
  EXPECT_NE(request.spec.options, nullptr);
  request = ReadViewRequest(
      ViewMethod::kRemoveInterest,
      MakeRequest(ViewMethod::kRemoveInterest,
                  "<topic><Subscriber>3</Subscriber><Interest>4294967295</Interest></topic>"));
  EXPECT_EQ(request.subscriber, 3U);
  EXPECT_EQ(request.channel, 4294967295U);
}

class HostileRequest : public Platform::Store::StoreTest {
 protected:
  HostileRequest() {
    StoreNumbered(1);
    service_ = std::make_unique<ViewService>(Open(), ServiceLimits(), 2, [](const std::string&) {});
    session_ = service_->Open("client");
  }
  ~HostileRequest() override { session_->OnClosed(); }

  std::shared_ptr<TestCall> Send(std::uint32_t method, std::vector<unsigned char> packet,
                                 std::uint32_t component = 271) {
    auto call = std::make_shared<TestCall>(component, method, std::move(packet));
    session_->OnCall(call);
    return call;
  }
  // The code of the "result" in the reply; that of a failure in its place is negative.
  long long GetResult(std::uint32_t method, std::vector<unsigned char> packet) {
    const auto call = Send(method, std::move(packet));
    const auto reply = call->WaitForReply();
    if (!reply) return -static_cast<long long>(call->GetFailure().GetCode());
    const auto from = Serialization::CreateXMLPacketDeserializer(reply->data(), reply->size(), 0);
    from->BeginElement(from->PeekMetaInfo());
    Common::Error result;
    from->Read(Serialization::MetaInfo("result"), result);
    return result.GetCode();
  }

  std::unique_ptr<ViewService> service_;
  std::unique_ptr<Platform::Ipc::Session> session_;
};

TEST_F(HostileRequest, IsAnsweredByAFailureThatSaysWhy) {
  const TestSupport::TraceRecorder traces;
  const struct {
    ViewMethod method;
    std::string arguments;
    long long code;
  } cases[] = {
      // The units: not there, without an end, without bytes, no base64, no stream, nothing at all.
      {ViewMethod::kOpenStaticView, "", kUnreadableRequest},
      {ViewMethod::kOpenStaticView, "<specification></specification>", kUnreadableRequest},
      {ViewMethod::kOpenStaticView, MakeSpecOf("VQYHAAAA"), kUnreadableRequest},
      {ViewMethod::kOpenStaticView, MakeSpecOf(""), kUnreadableRequest},
      {ViewMethod::kOpenStaticView, MakeSpecOf("VQ"), kUnreadableRequest},
      {ViewMethod::kOpenDynamicView, MakeSpecOf("/////w=="), kUnreadableRequest},
      {ViewMethod::kOpenDynamicView, MakeSpecText("<is_empty>0</is_empty>", kNull),
       kUnreadableRequest},
      {ViewMethod::kAddInterest, "<spec><Subscription>1</Subscription></spec>", kUnreadableRequest},
      {ViewMethod::kRemoveInterest, "<topic><Subscriber>1</Subscriber></topic>",
       kUnreadableRequest},
      // Options that are no composite.
      {ViewMethod::kOpenStaticView, MakeSpecText(kNull, kSeven), 0xFA000A},
      {ViewMethod::kOpenDynamicView, MakeSpecText(kNull, kSeven), 0xFA000A},
      // Numbers of nothing, and texts that are no numbers.
      {ViewMethod::kAcquireUpdates, "<viewID>0</viewID>", kUnknownView},
      {ViewMethod::kCloseView, "<viewID>-1</viewID>", kUnknownView},
      {ViewMethod::kCloseView, "<viewID>no</viewID>", kUnknownView},
      {ViewMethod::kReadSubscription, "<subscriber>1</subscriber>", kUnknownTransmission},
      {ViewMethod::kUnsubscribe, "<subscriber>0</subscriber>", kUnknownTransmission},
      {ViewMethod::kUnsubscribe, "", kUnreadableRequest},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.arguments);
    EXPECT_EQ(GetResult(static_cast<std::uint32_t>(expected.method),
                        MakeRequest(expected.method, expected.arguments)),
              expected.code);
  }
  // Of another method; no request; no packet.
  EXPECT_EQ(GetResult(4, MakeRequest(ViewMethod::kUnsubscribe, "<viewID>1</viewID>")),
            kUnreadableRequest);
  EXPECT_EQ(GetResult(4, MakePacket("")), kUnreadableRequest);
  EXPECT_EQ(GetResult(4, {}), kUnreadableRequest);
  // Cut short anywhere.
  const std::vector<unsigned char> whole =
      MakeRequest(ViewMethod::kOpenStaticView, MakeSpecText(kNull, kNull));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_EQ(GetResult(2, {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}),
              kUnreadableRequest)
        << size;
  }
  EXPECT_EQ(GetResult(2, whole), 0);
  // What isn't in the interface has no reply.
  for (const std::uint32_t method : {0U, 10U, 0xFFFFFFFFU}) {
    EXPECT_EQ(GetResult(method, whole), -static_cast<long long>(kUnknownMethod));
  }
  const auto other = Send(1, whole, 274);
  EXPECT_FALSE(other->WaitForReply());
  EXPECT_EQ(other->GetFailure().GetCode(), kUnknownMethod);
  // Clients can't raise alarms about the program itself.
  EXPECT_EQ(traces.Assertions(), std::vector<std::string>());
}

// A service answers with the bytes of the records that a client reads.
TEST(ReplyWriter, WritesRecordsAsTheyTravel) {
  const EncodedUnit seven = EncodeUnit(*Por::GetStaticUnitFactory()->CreateDWord(7));
  const auto write = [](ViewMethod method, const auto& fill) {
    TestCall call(271, 1, {});
    ReplyWriter reply(method);
    fill(reply);
    reply.Send(call);
    const auto bytes = call.WaitForReply();
    const std::string text(bytes->begin(), bytes->end());
    return text.substr(kBegin.size(), text.size() - kBegin.size() - kEnd.size());
  };
  const std::string result = "<result>AQ==</result>";
  const std::string item = "<item>" + kSeven + "</item>";
  const std::string traits =
      "<traits><trait  name=\"Is\" type=\"StringValue\">Dml::ViewManagement::";
  EXPECT_EQ(write(ViewMethod::kOpenDynamicView,
                  [&](ReplyWriter& reply) {
                    reply.WriteViewId(8);
                    reply.BeginSnapshot();
                    reply.WriteItem(seven);
                    reply.WriteItem(seven);
                  }),
            "<reply_ViewManager_OpenDynamicView>" + result +
                "<viewID>8</viewID><snapshot><vector>" + item + item +
                "</vector></snapshot></reply_ViewManager_OpenDynamicView>");
  EXPECT_EQ(write(ViewMethod::kSubscribe, [](ReplyWriter& reply) { reply.WriteSubscription(5); }),
            "<reply_ViewManager_Subscribe>" + result +
                "<subscription><ID>5</ID></subscription></reply_ViewManager_Subscribe>");
  EXPECT_EQ(write(ViewMethod::kAddInterest,
                  [&](ReplyWriter& reply) {
                    reply.BeginTopic({3, 4});
                    reply.WriteItem(seven);
                  }),
            "<reply_ViewManager_AddInterest>" + result +
                "<topic><ID version=\"2\"><Subscriber>3</Subscriber><Interest>4</Interest>" +
                traits + "TopicID</trait></traits></ID><Content><vector>" + item +
                "</vector></Content></topic></reply_ViewManager_AddInterest>");
  const std::string update = "<item version=\"2\"><Type>1</Type><Key>" + kSeven +
                             "</Key><PackedUpdate>" + kNull + "</PackedUpdate>" + traits +
                             "ViewUpdate</trait></traits></item>";
  EXPECT_EQ(write(ViewMethod::kReadSubscription,
                  [&](ReplyWriter& reply) {
                    reply.BeginTopicUpdates();
                    reply.WriteItem(EncodedUpdate{1, seven, {}});
                    reply.WriteItem(EncodedUpdate{1, seven, {}});
                  }),
            "<reply_ViewManager_ReadSubscription>" + result + "<updates><TopicUpdates><vector>" +
                update + update +
                "</vector></TopicUpdates></updates></reply_ViewManager_ReadSubscription>");
}

}  // namespace

}  // namespace ObjProbeService
