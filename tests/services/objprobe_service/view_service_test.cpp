#include "services/objprobe_service/view_service.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <thread>

#include "core/common/number_text.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/por/unit_operations.h"
#include "platform/store/sqlite_store_writer.h"
#include "services/objprobe_service/service_error.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/services/objprobe_service/service_client.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

namespace ObjProbeService {

namespace {

using namespace Dml::ViewManagement;
using Dml::ViewSpec;
using Platform::Store::MakeId;
using Platform::Store::MakeObject;
using Platform::Store::Parse;
using Platform::Store::SqliteStoreWriter;
using Units = std::vector<Por::SharedUnit>;
using Texts = std::vector<std::string>;

constexpr char kThings[] = ".Composite().Trait(\"Is\").String(\"Thing\").End().End()";
constexpr char kTwo[] = ".Composite().Property(\"LimitOptions\").DWord(2).End().End()";

std::string Join(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) text += part;
  return text;
}

// An object with a version, of that type.
std::string MakeVersion(int number, unsigned int version, const std::string& type = "Thing") {
  return MakeObject(number, type,
                    Join({".Property(\"V\").DWord(", std::to_string(version), ").End()"}));
}

std::string DescribeId(const Common::String& id) {
  return std::to_string(std::stoul(TestSupport::Utf8(id).substr(0, 8), nullptr, 16));
}
std::string DescribeVersion(const Por::View::Unit& unit) {
  const Por::View::Property* version = Por::Util::FindProperty(unit, "V");
  if (version == nullptr) return "";
  return Join({"v", std::to_string(Por::Util::GetValue<unsigned int>(version->GetValue()))});
}
Texts Describe(const Units& units) {
  Texts texts;
  for (const Por::SharedUnit& unit : units) {
    texts.push_back(DescribeId(Dml::GetObjectKey(*unit)) + DescribeVersion(*unit));
  }
  return texts;
}
// "+1v2" created, "~1v3" updated, "-1" deleted.
std::string Describe(const ViewUpdate& update) {
  switch (update.type) {
    case kUpdateCreated:
      return Join({"+", DescribeId(Dml::GetObjectKey(*update.key)), DescribeVersion(*update.key)});
    case kUpdateUpdated:
      return Join({"~", DescribeId(Dml::GetObjectKeyFromKey(*update.key)),
                   DescribeVersion(*update.packed_update)});
    default:
      return Join({"-", DescribeId(Dml::GetObjectKeyFromKey(*update.key))});
  }
}
Texts Describe(const std::vector<ViewUpdate>& updates) {
  Texts texts;
  for (const ViewUpdate& update : updates) texts.push_back(Describe(update));
  return texts;
}
// The same of a transmission, behind the number of the channel: "3+1v2", "3 open", "3 closed",
// "3 error CODE".
std::string DescribeRecord(const ViewUpdate& record) {
  const Por::View::Unit& unit = *record.key;
  const std::string channel = std::to_string(
      Por::Util::GetValue<unsigned int>(Por::Util::GetUniqueTraitByName(unit, "ChannelID")));
  if (Por::Util::HasTrait(unit, "ChannelCreation")) return channel + " open";
  if (Por::Util::HasTrait(unit, "ChannelRemoval")) return channel + " closed";
  if (Por::Util::HasTrait(unit, "ChannelError")) {
    const auto error = Por::Util::GetValue<Common::Error>(unit);
    return Join({channel, " error ", std::to_string(error.GetCode())});
  }
  return channel + Describe(record);
}

class ViewServiceTest : public Platform::Store::StoreTest {
 protected:
  // Brief waits, so that tests of them don't take long.
  ViewServiceTest() { limits_.pull_wait = std::chrono::milliseconds(200); }
  ~ViewServiceTest() override {
    if (session_ != nullptr) session_->OnClosed();
  }

  void Serve(unsigned int version = 2) {
    if (!std::filesystem::exists(path_)) SqliteStoreWriter::Create(path_);
    service_ =
        std::make_unique<ViewService>(Open(), limits_, version, [this](const std::string& line) {
          const std::lock_guard lock(log_mutex_);
          log_ += line + "\n";
        });
    session_ = service_->Open("client");
  }
  SentRequest Send(std::unique_ptr<Binding::Request> request) {
    return ObjProbeService::Send(*session_, std::move(request));
  }
  std::uint32_t Call(std::unique_ptr<Binding::Request> request) {
    return Send(std::move(request)).Wait().GetCode();
  }
  void Delete(int number) {
    Common::Guid id;
    ASSERT_TRUE(Common::GuidFromString(id, MakeId(number).c_str()));
    SqliteStoreWriter writer(path_);
    writer.Begin();
    writer.Delete(id);
    writer.Commit();
  }

  unsigned int Subscribe() {
    Subscription subscription;
    EXPECT_EQ(Call(CreateSubscribeRequest({}, subscription)), 0U);
    EXPECT_NE(subscription.id, 0U);
    return subscription.id;
  }
  Topic AddInterest(unsigned int transmission, const std::string& pattern = "",
                    const std::string& options = "") {
    Topic topic;
    EXPECT_EQ(Call(CreateAddInterestRequest({transmission, MakeSpec(pattern, options)}, topic)),
              0U);
    EXPECT_EQ(topic.id.subscriber, transmission);
    EXPECT_NE(topic.id.interest, 0U);
    return topic;
  }
  // Pulls until so many records have come.
  Texts Pull(unsigned int transmission, std::size_t count) {
    Texts texts;
    while (texts.size() < count) {
      SubscriptionContent content;
      const std::uint32_t code = Call(CreateReadSubscriptionRequest(transmission, content));
      EXPECT_EQ(code, 0U);
      if (code != 0) break;
      for (const ViewUpdate& record : content.topic_updates)
        texts.push_back(DescribeRecord(record));
    }
    return texts;
  }
  // Waits for what a thread of the service is about to do.
  template <class Condition>
  static bool Eventually(Condition&& condition) {
    for (int i = 0; i < 6000; ++i) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  ServiceLimits limits_;
  std::mutex log_mutex_;
  std::string log_;
  std::unique_ptr<ViewService> service_;
  std::unique_ptr<Platform::Ipc::Session> session_;
};

TEST_F(ViewServiceTest, StaticViewGivesWhatMatches) {
  Store({MakeVersion(1, 5), MakeVersion(2, 6, "Other"), MakeVersion(3, 7), MakeVersion(4, 8)});
  Serve();
  const auto open = [&](const ViewSpec& spec) {
    Units units;
    EXPECT_EQ(Call(CreateOpenStaticViewRequest(spec, units)), 0U);
    return Describe(units);
  };
  EXPECT_EQ(open({}), (Texts{"1v5", "2v6", "3v7", "4v8"}));
  EXPECT_EQ(open(MakeSpec(kThings)), (Texts{"1v5", "3v7", "4v8"}));
  EXPECT_EQ(open(MakeSpec(kThings, kTwo)), (Texts{"1v5", "3v7"}));
  EXPECT_EQ(open(MakeSpec(".Composite().Trait(\"Is\").String(\"No\").End().End()")), Texts());
  // The object arrives as it is stored.
  Units units;
  EXPECT_EQ(Call(CreateOpenStaticViewRequest({}, units)), 0U);
  EXPECT_TRUE(Por::Util::UnitEqual(*units.at(1), *Parse(MakeVersion(2, 6, "Other"))));
}

TEST_F(ViewServiceTest, DynamicViewTellsChangesPullByPull) {
  Store({MakeVersion(1, 1), MakeVersion(2, 1, "Other")});
  Serve(1);
  unsigned int view = 0;
  Units snapshot;
  ASSERT_EQ(Call(CreateOpenDynamicViewRequest(MakeSpec(kThings), view, snapshot)), 0U);
  EXPECT_NE(view, 0U);
  EXPECT_EQ(Describe(snapshot), (Texts{"1v1"}));
  std::vector<ViewUpdate> updates;
  SentRequest pull = Send(CreateAcquireUpdatesRequest(view, updates));
  // Another one is refused while it waits.
  std::vector<ViewUpdate> none;
  EXPECT_EQ(Call(CreateAcquireUpdatesRequest(view, none)), kAlreadyRunning);
  Store({MakeVersion(2, 2), MakeVersion(1, 2)});
  EXPECT_EQ(pull.Wait().GetCode(), 0U);
  EXPECT_EQ(Describe(updates), (Texts{"+2v2", "~1v2"}));
  // What happens between two pulls comes with the next one.
  Store({MakeVersion(2, 3), MakeVersion(1, 3, "Other"), MakeVersion(3, 1)});
  Delete(3);
  Texts texts;
  while (texts.size() < 4) {
    ASSERT_EQ(Call(CreateAcquireUpdatesRequest(view, updates)), 0U);
    for (const ViewUpdate& update : updates) texts.push_back(Describe(update));
  }
  EXPECT_EQ(texts, (Texts{"~2v3", "-1", "+3v1", "-3"}));
}

}  // namespace

}  // namespace ObjProbeService
