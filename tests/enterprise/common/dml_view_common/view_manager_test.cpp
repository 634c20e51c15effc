#include "enterprise/common/dml_view_common/view_manager.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "enterprise/common/dml_view_common/view_manager_proxy.h"
#include "enterprise/common/dml_view_common/view_manager_requests.h"
#include "enterprise/common/dml_view_common/view_record_formats.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/enterprise/common/ipc/scripted_access_point.h"
#include "tests/support/trace_recorder.h"

namespace Dml::ViewManagement {
namespace {

using namespace Serialization::Packets;
using Units = std::vector<Por::SharedUnit>;

constexpr unsigned int kMost = 0xFFFFFFFF;

// Units by their streams: the DWord 7, and a string with two bytes, a surrogate pair and a 0.
const std::string kSeven = "<is_empty>0</is_empty><value>VQYHAAAARQ==</value>";
const std::string kText = "<is_empty>0</is_empty><value>VQ0IAAAA6QA92ADeAABF</value>";
const std::string kNull = "<is_empty>1</is_empty>";

Por::SharedUnit Seven() {
  return Por::GetStaticUnitFactory()->CreateDWord(7);
}
Por::SharedUnit Text() {
  return Por::GetStaticUnitFactory()->CreateString(Common::String(u"\u00e9\U0001F600\0", 4));
}

std::string Join(std::initializer_list<std::string_view> parts) {
  std::string result;
  for (const std::string_view part : parts) result += part;
  return result;
}
std::string Element(const std::string& name, std::string_view content) {
  return Join({"<", name, ">", content, "</", name, ">"});
}
std::string Traits(const std::string& class_name) {
  return Join(
      {"<traits><trait  name=\"Is\" type=\"StringValue\">", class_name, "</trait></traits>"});
}
std::string Update(const char* type, const std::string& key, const std::string& packed) {
  return Join({"<item version=\"2\">", Element("Type", type), Element("Key", key),
               Element("PackedUpdate", packed), Traits("Dml::ViewManagement::ViewUpdate"),
               "</item>"});
}
std::string Topics(const std::string& ids, const std::string& items) {
  return Join({"<topic><ID version=\"2\">", ids, Traits("Dml::ViewManagement::TopicID"),
               "</ID><Content><vector>", items, "</vector></Content></topic>"});
}

// "-" for a null unit, "7" and "t" for the two above.
std::string Describe(const Por::SharedUnit& unit) {
  if (unit == nullptr) return "-";
  if (Por::Util::UnitEqual(*unit, *Seven())) return "7";
  return Por::Util::UnitEqual(*unit, *Text()) ? "t" : "?";
}
std::string Describe(const Units& units) {
  std::string result;
  for (const Por::SharedUnit& unit : units) result += Describe(unit);
  return result;
}
std::string Describe(const std::vector<ViewUpdate>& updates) {
  std::string result;
  for (const ViewUpdate& update : updates) {
    result += std::to_string(update.type) + Describe(update.key) + Describe(update.packed_update);
    result += ' ';
  }
  return result;
}

// Calls go through the proxy to a service that answers as the test says.
class ViewManagerProxy : public ::testing::Test {
 protected:
  void Answer(const std::string& method, const std::string& results) {
    point->reply = Element("reply_ViewManager_" + method, Join({"<result>AQ==</result>", results}));
  }
  // What goes out for `call` as "NUMBER SINCE" and the arguments, while `results` come back.
  template <class Call>
  void ExpectCall(const char* method, const char* numbers, const std::string& arguments,
                  const std::string& results, Call&& call) {
    SCOPED_TRACE(method);
    Answer(method, results);
    EXPECT_FALSE(call().IsFailure());
    EXPECT_EQ(point->asked_method, Join({"271 ", numbers, " 2 18446744073709551615"}));
    EXPECT_EQ(point->asked, Element(std::string("request_ViewManager_").append(method), arguments));
  }

  const std::shared_ptr<Binding::ScriptedAccessPoint> point =
      std::make_shared<Binding::ScriptedAccessPoint>();
  ViewManager_Proxy proxy{point};
};

TEST_F(ViewManagerProxy, SendsArgumentsAndInitialValuesAndStoresResults) {
  const ViewSpec spec{Seven(), nullptr};
  const std::string fields = Join({Element("Pattern", kSeven), Element("Options", kNull)});
  const std::string snapshot = Join({Element("item", kText), Element("item", kSeven)});

  unsigned int id = kMost;
  Units units{nullptr, Text()};
  ExpectCall("OpenDynamicView", "1 1",
             Join({"<specification>", fields, "</specification><viewID>4294967295</viewID>",
                   "<snapshot><vector>", Element("item", kNull), Element("item", kText),
                   "</vector></snapshot>"}),
             Join({"<viewID>8</viewID><snapshot><vector>", snapshot, "</vector></snapshot>"}),
             [&] { return proxy.OpenDynamicView(spec, id, units); });
  EXPECT_EQ(id, 8u);
  EXPECT_EQ(Describe(units), "t7");
  units.clear();
  ExpectCall("OpenStaticView", "2 1",
             Join({"<specification>", Element("Pattern", kNull), Element("Options", kText),
                   "</specification><snapshot><vector></vector></snapshot>"}),
             Join({"<snapshot><vector>", snapshot, "</vector></snapshot>"}), [&] {
               return proxy.OpenStaticView(ViewSpec{nullptr, Text()}, units);
             });
  EXPECT_EQ(Describe(units), "t7");

  const std::string update = Update("1", kSeven, kText);
  std::vector<ViewUpdate> updates{{kUpdateCreated, Text(), Seven()}};
  ExpectCall("AcquireUpdates", "3 1",
             Join({"<viewID>4294967295</viewID><updates><vector>", Update("0", kText, kSeven),
                   "</vector></updates>"}),
             Join({"<updates><vector>", update, "</vector></updates>"}),
             [&] { return proxy.AcquireUpdates(kMost, updates); });
  EXPECT_EQ(Describe(updates), "17t ");
  SubscriptionContent content{{{kUpdateDeleted, Seven(), nullptr}, {kMost, nullptr, Text()}}};
  ExpectCall(
      "ReadSubscription", "7 2",
      Join({"<subscriber>0</subscriber><updates><TopicUpdates><vector>", Update("2", kSeven, kNull),
            Update("4294967295", kNull, kText), "</vector></TopicUpdates></updates>"}),
      Join({"<updates><TopicUpdates><vector>", update, update,
            "</vector></TopicUpdates></updates>"}),
      [&] { return proxy.ReadSubscription(0, content); });
  EXPECT_EQ(Describe(content.topic_updates), "17t 17t ");

  Subscription subscription{kMost};
  ExpectCall("Subscribe", "5 2", "<spec></spec><subscription><ID>4294967295</ID></subscription>",
             "<subscription><ID>5</ID></subscription>",
             [&] { return proxy.Subscribe(SubscriptionSpec(), subscription); });
  EXPECT_EQ(subscription.id, 5u);
  Topic topic{{kMost, 1}, {Seven(), nullptr}};
  ExpectCall("AddInterest", "6 2",
             Join({"<spec><Subscription>4294967295</Subscription><Interest version=\"2\">", fields,
                   Traits("Dml::ViewSpec"), "</Interest></spec>",
                   Topics("<Subscriber>4294967295</Subscriber><Interest>1</Interest>",
                          Join({Element("item", kSeven), Element("item", kNull)}))}),
             Topics("<Subscriber>5</Subscriber><Interest>6</Interest>", snapshot), [&] {
               return proxy.AddInterest(TopicSpec{kMost, spec}, topic);
             });
  EXPECT_EQ(topic.id.subscriber, 5u);
  EXPECT_EQ(topic.id.interest, 6u);
  EXPECT_EQ(Describe(topic.content), "t7");

  ExpectCall("CloseView", "4 1", "<viewID>4294967295</viewID>", "",
             [&] { return proxy.CloseView(kMost); });
  ExpectCall("RemoveInterest", "8 2",
             "<topic><Subscriber>3</Subscriber><Interest>4294967295</Interest></topic>", "", [&] {
               return proxy.RemoveInterest(TopicID{3, kMost});
             });
  ExpectCall("Unsubscribe", "9 2", "<subscriber>4294967295</subscriber>", "",
             [&] { return proxy.Unsubscribe(kMost); });
  point->create_error = Common::Error(0x61, Common::LineTag{});
  EXPECT_EQ(proxy.Unsubscribe(1).GetCode(), 0x61u);
}

TEST(ViewRecord, TellsNoVersionThatIsInForce) {
  EXPECT_EQ(WriteElements([](Serialization::Serializer& to) {
              to.SetSubjectVersion(2);
              Serialization::RecordFormat<TopicSpec>::Write(to, TopicSpec());
            }),
            Join({"<Subscription>0</Subscription><Interest>", Element("Pattern", kNull),
                  Element("Options", kNull), Traits("Dml::ViewSpec"), "</Interest>"}));
}

TEST_F(ViewManagerProxy, TakesNullUnitsFromMalformedSnapshots) {
  const std::string good = Element("item", kSeven);
  const struct {
    std::string_view middle;
    const char* snapshot;
  } cases[] = {
      {"<item><is_empty>1</is_empty></item>", "7-7"},
      // A unit that doesn't end.
      {"<item><is_empty>0</is_empty><value>VQYHAAAA</value></item>", "7-7"},
      // What fails ends the snapshot: no "is_empty", a unit cut short.
      {"<item></item>", "7-"},
      {"<item><is_empty>0</is_empty><value>VQYHAA==</value></item>", "7-"},
      {"<other></other>", "7"},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.middle);
    Units units{Text(), Text()};
    Answer("OpenStaticView",
           Join({"<snapshot><vector>", good, expected.middle, good, "</vector></snapshot>"}));
    EXPECT_FALSE(proxy.OpenStaticView(ViewSpec(), units).IsFailure());
    EXPECT_EQ(Describe(units), expected.snapshot);
  }
}

TEST_F(ViewManagerProxy, KeepsWhatAMalformedUpdateLacks) {
  const std::string type = "<Type>1</Type>";
  const std::string key = Element("Key", kSeven);
  const std::string packed = Element("PackedUpdate", kText);
  const struct {
    std::string item;
    const char* update;
  } cases[] = {
      {"", "0--"},
      {packed + key + type, "17t"},
      // A search that finds nothing has used up a child; one more makes up for it.
      {key + packed, "07-"},
      {key + packed + Traits("Dml::ViewManagement::ViewUpdate"), "07t"},
      {Join({"<Type>x</Type><Key><is_empty>0</is_empty><value>!</value></Key>", packed}), "0-t"},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.item);
    SubscriptionContent content;
    Answer("ReadSubscription",
           Join({"<updates><TopicUpdates><vector>", Element("item", expected.item),
                 Element("item", type), "</vector></TopicUpdates></updates>"}));
    EXPECT_FALSE(proxy.ReadSubscription(1, content).IsFailure());
    EXPECT_EQ(Describe(content.topic_updates), Join({expected.update, " 1-- "}));
  }
}

TEST_F(ViewManagerProxy, KeepsWhatOtherMalformedResultsLack) {
  const std::string content = "<Content><vector>" + Element("item", kSeven) + "</vector></Content>";
  const std::string id = "<ID><Subscriber>5</Subscriber><Interest>6</Interest></ID>";
  const struct {
    std::string topic;
    const char* values;  // subscriber, interest, content
  } cases[] = {
      {content + id, "5 6 7"},
      {"<ID>5</ID>" + content, "1 2 7"},
      {id + "<Content></Content>", "5 6 t"},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.topic);
    Topic topic{{1, 2}, {Text()}};
    Answer("AddInterest", Element("topic", expected.topic));
    EXPECT_FALSE(proxy.AddInterest(TopicSpec(), topic).IsFailure());
    EXPECT_EQ(std::to_string(topic.id.subscriber) + " " + std::to_string(topic.id.interest) + " " +
                  Describe(topic.content),
              expected.values);
  }
}

}  // namespace
}  // namespace Dml::ViewManagement
