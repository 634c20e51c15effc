#include "enterprise/common/dml_view_common/view_record_formats.h"

#include <memory>

#include "enterprise/common/ipc/utils.h"
#include "enterprise/common/por/serialization/unit_serializer.h"

namespace Serialization {

using Binding::ReadField;
using Binding::WriteElement;
using Dml::ViewSpec;
using Dml::ViewManagement::Subscription;
using Dml::ViewManagement::SubscriptionContent;
using Dml::ViewManagement::SubscriptionSpec;
using Dml::ViewManagement::Topic;
using Dml::ViewManagement::TopicID;
using Dml::ViewManagement::TopicSpec;
using Dml::ViewManagement::ViewUpdate;

namespace {

TraitList MakeClassTrait(const char* class_name) {
  return std::make_shared<const std::vector<MetaInfoTrait>>(
      1, MetaInfoTrait{"Is", "StringValue", class_name});
}

}  // namespace

TraitList RecordFormat<ViewSpec>::GetTraits() {
  static const TraitList traits = MakeClassTrait("Dml::ViewSpec");
  return traits;
}

void RecordFormat<ViewSpec>::Write(Serializer& serializer, const ViewSpec& spec) {
  WriteElement(serializer, "Pattern", spec.pattern);
  WriteElement(serializer, "Options", spec.options);
}

TraitList RecordFormat<ViewUpdate>::GetTraits() {
  static const TraitList traits = MakeClassTrait("Dml::ViewManagement::ViewUpdate");
  return traits;
}

void RecordFormat<ViewUpdate>::Write(Serializer& serializer, const ViewUpdate& update) {
  WriteElement(serializer, "Type", update.type);
  WriteElement(serializer, "Key", update.key);
  WriteElement(serializer, "PackedUpdate", update.packed_update);
}

void RecordFormat<ViewUpdate>::Read(Deserializer& deserializer, ViewUpdate& update) {
  ReadField(deserializer, "Type", update.type);
  ReadField(deserializer, "Key", update.key);
  ReadField(deserializer, "PackedUpdate", update.packed_update);
}

void RecordFormat<SubscriptionSpec>::Write(Serializer&, const SubscriptionSpec&) {}

void RecordFormat<Subscription>::Write(Serializer& serializer, const Subscription& subscription) {
  WriteElement(serializer, "ID", subscription.id);
}

void RecordFormat<Subscription>::Read(Deserializer& deserializer, Subscription& subscription) {
  ReadField(deserializer, "ID", subscription.id);
}

void RecordFormat<TopicSpec>::Write(Serializer& serializer, const TopicSpec& spec) {
  WriteElement(serializer, "Subscription", spec.subscription);
  WriteRecord(serializer, "Interest", spec.interest);
}

TraitList RecordFormat<TopicID>::GetTraits() {
  static const TraitList traits = MakeClassTrait("Dml::ViewManagement::TopicID");
  return traits;
}

void RecordFormat<TopicID>::Write(Serializer& serializer, const TopicID& id) {
  WriteElement(serializer, "Subscriber", id.subscriber);
  WriteElement(serializer, "Interest", id.interest);
}

void RecordFormat<TopicID>::Read(Deserializer& deserializer, TopicID& id) {
  ReadField(deserializer, "Subscriber", id.subscriber);
  ReadField(deserializer, "Interest", id.interest);
}

void RecordFormat<Topic>::Write(Serializer& serializer, const Topic& topic) {
  WriteRecord(serializer, "ID", topic.id);
  WriteElement(serializer, "Content", topic.content);
}

void RecordFormat<Topic>::Read(Deserializer& deserializer, Topic& topic) {
  ReadField(deserializer, "ID", topic.id);
  ReadField(deserializer, "Content", topic.content);
}

void RecordFormat<SubscriptionContent>::Write(Serializer& serializer,
                                              const SubscriptionContent& content) {
  WriteElement(serializer, "TopicUpdates", content.topic_updates);
}

void RecordFormat<SubscriptionContent>::Read(Deserializer& deserializer,
                                             SubscriptionContent& content) {
  ReadField(deserializer, "TopicUpdates", content.topic_updates);
}

}  // namespace Serialization
