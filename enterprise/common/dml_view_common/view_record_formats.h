#pragma once

#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/serialize/record.h"

// How the records of the view protocol travel. Elements in order:
//
//   ViewSpec             Pattern, Options: units
//   ViewUpdate           Type: number; Key, PackedUpdate: units
//   SubscriptionSpec     none
//   Subscription         ID: number
//   TopicSpec            Subscription: number; Interest: ViewSpec
//   TopicID              Subscriber, Interest: numbers
//   Topic                ID: TopicID; Content: sequence of units
//   SubscriptionContent  TopicUpdates: sequence of ViewUpdate
//
// The "Interest" of a TopicSpec, the "ID" of a Topic and each "item" of ViewUpdates tell version
// and trait of their type. All other elements tell neither.
//
// Reading is tolerant: a field that is missing keeps its value, and may cost the next one
// (Binding::TryReadElement); one that is malformed stays as far as it was read, a text that is no
// number as 0. Further fields are skipped, and no version is looked at. What only goes to a service
// has no reader.

namespace Serialization {

template <>
struct RecordFormat<Dml::ViewSpec> {
  static constexpr unsigned long long kVersion = 2;
  static TraitList GetTraits();
  static void Write(Serializer& serializer, const Dml::ViewSpec& spec);
};

template <>
struct RecordFormat<Dml::ViewManagement::ViewUpdate> {
  static constexpr unsigned long long kVersion = 2;
  static TraitList GetTraits();
  static void Write(Serializer& serializer, const Dml::ViewManagement::ViewUpdate& update);
  static void Read(Deserializer& deserializer, Dml::ViewManagement::ViewUpdate& update);
};

template <>
struct RecordFormat<Dml::ViewManagement::SubscriptionSpec> : PlainRecordFormat {
  static void Write(Serializer& serializer, const Dml::ViewManagement::SubscriptionSpec& spec);
};

template <>
struct RecordFormat<Dml::ViewManagement::Subscription> : PlainRecordFormat {
  static void Write(Serializer& serializer, const Dml::ViewManagement::Subscription& subscription);
  static void Read(Deserializer& deserializer, Dml::ViewManagement::Subscription& subscription);
};

template <>
struct RecordFormat<Dml::ViewManagement::TopicSpec> : PlainRecordFormat {
  static void Write(Serializer& serializer, const Dml::ViewManagement::TopicSpec& spec);
};

template <>
struct RecordFormat<Dml::ViewManagement::TopicID> {
  static constexpr unsigned long long kVersion = 2;
  static TraitList GetTraits();
  static void Write(Serializer& serializer, const Dml::ViewManagement::TopicID& id);
  static void Read(Deserializer& deserializer, Dml::ViewManagement::TopicID& id);
};

template <>
struct RecordFormat<Dml::ViewManagement::Topic> : PlainRecordFormat {
  static void Write(Serializer& serializer, const Dml::ViewManagement::Topic& topic);
  static void Read(Deserializer& deserializer, Dml::ViewManagement::Topic& topic);
};

template <>
struct RecordFormat<Dml::ViewManagement::SubscriptionContent> : PlainRecordFormat {
  static void Write(Serializer& serializer,
                    const Dml::ViewManagement::SubscriptionContent& content);
  static void Read(Deserializer& deserializer, Dml::ViewManagement::SubscriptionContent& content);
};

}  // namespace Serialization
