// Replies of the view manager: the number of the method, a line feed, the packet. Whatever a packet
// holds, its request reads it or throws one of our errors and stores nothing, and the results that
// it has stored, as a reply again, are read as the same ones.

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "enterprise/common/dml_view_common/view_manager_requests.h"
#include "enterprise/common/dml_view_common/view_record_formats.h"
#include "enterprise/common/ipc/utils.h"
#include "enterprise/common/por/serialization/unit_serializer.h"
#include "enterprise/serialize/xml_serializer.h"
#include "fuzz/fuzz_units.h"

using namespace Dml::ViewManagement;
using namespace Serialization;

namespace {

// The results of all methods.
struct Results {
  unsigned int view_id = 0;
  std::vector<Por::SharedUnit> snapshot;
  std::vector<ViewUpdate> updates;
  Subscription subscription;
  Topic topic;
  SubscriptionContent content;
};

using Fuzz::IsSame;

bool IsSame(const std::vector<ViewUpdate>& left, const std::vector<ViewUpdate>& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const ViewUpdate& a, const ViewUpdate& b) {
                      return a.type == b.type && IsSame(a.key, b.key) &&
                             IsSame(a.packed_update, b.packed_update);
                    });
}
bool IsSame(const Results& left, const Results& right) {
  return left.view_id == right.view_id && IsSame(left.snapshot, right.snapshot) &&
         IsSame(left.updates, right.updates) && left.subscription.id == right.subscription.id &&
         left.topic.id.subscriber == right.topic.id.subscriber &&
         left.topic.id.interest == right.topic.id.interest &&
         IsSame(left.topic.content, right.topic.content) &&
         IsSame(left.content.topic_updates, right.content.topic_updates);
}

std::unique_ptr<Binding::Request> MakeRequest(char method, Results& to) {
  switch (method) {
    case '1':
      return CreateOpenDynamicViewRequest({}, to.view_id, to.snapshot);
    case '2':
      return CreateOpenStaticViewRequest({}, to.snapshot);
    case '3':
      return CreateAcquireUpdatesRequest(0, to.updates);
    case '5':
      return CreateSubscribeRequest({}, to.subscription);
    case '6':
      return CreateAddInterestRequest({}, to.topic);
    case '7':
      return CreateReadSubscriptionRequest(0, to.content);
    default:
      return CreateCloseViewRequest(0);
  }
}

std::string WriteReply(char method, const Results& results) {
  static constexpr const char* kNames[] = {"OpenDynamicView", "OpenStaticView", "AcquireUpdates",
                                           "CloseView",       "Subscribe",      "AddInterest",
                                           "ReadSubscription"};
  const std::unique_ptr<Serializer> to = CreateXMLPacketSerializer(0);
  {
    const int known = method >= '1' && method <= '7' ? method - '1' : 3;
    const ElementWriter envelope(*to,
                                 MetaInfo(std::string("reply_ViewManager_").append(kNames[known])));
    to->Write(MetaInfo("result"), Common::Error());
    if (method == '1') Binding::WriteElement(*to, "viewID", results.view_id);
    if (method == '1' || method == '2') Binding::WriteElement(*to, "snapshot", results.snapshot);
    if (method == '3') Binding::WriteElement(*to, "updates", results.updates);
    if (method == '5') Binding::WriteElement(*to, "subscription", results.subscription);
    if (method == '6') Binding::WriteElement(*to, "topic", results.topic);
    if (method == '7') Binding::WriteElement(*to, "updates", results.content);
  }
  const CountedBytes packet = to->Finish();
  return {reinterpret_cast<const char*>(packet.data.get()), packet.size};
}

void ReadReply(char method, std::string_view packet, Results& results) {
  MakeRequest(method, results)
      ->ReadReply(*CreateXMLPacketDeserializer(
          reinterpret_cast<const unsigned char*>(packet.data()), packet.size(), 0));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (input.empty()) return 0;
  const char method = input[0];
  Results results;
  try {
    ReadReply(method, input.substr(std::min<std::size_t>(2, size)), results);
  } catch (const Common::Error& error) {
    Fuzz::Require(error.IsFailure(), "a failure has a code");
    Fuzz::Require(IsSame(results, Results()),
                  "a reply that can't be read leaves the results alone");
    return 0;
  }
  Results read_again;
  ReadReply(method, WriteReply(method, results), read_again);
  Fuzz::Require(IsSame(read_again, results), "results that were read come back");
  return 0;
}
