#pragma once

#include <utility>
#include <vector>

#include "enterprise/serialize/container.h"
#include "enterprise/serialize/element_scope.h"
#include "enterprise/serialize/serializer.h"

// Records and sequences of them.

namespace Serialization {

// How a type travels: the content of its element. Specialised beside the type:
//
//   static constexpr unsigned long long kVersion   version of the type, 0: it has none
//   static TraitList GetTraits()                   may be null
//   static void Write(Serializer&, const T&)       the fields in declared order
//   static void Read(Deserializer&, T&)            the same order
template <class T>
struct RecordFormat;

// What a record without version and traits derives its format from.
struct PlainRecordFormat {
  static constexpr unsigned long long kVersion = 0;
  static TraitList GetTraits() { return nullptr; }
};

// Writes `value` as an element that tells the version, unless that is in force already, and the
// traits of its type. Fields and parameters that tell neither are an ElementWriter around
// RecordFormat<T>::Write.
template <class T>
void WriteRecord(Serializer& serializer, const char* name, const T& value) {
  using Format = RecordFormat<T>;
  // A type without version leaves the one in force.
  const VersionScope version(
      serializer, Format::kVersion != 0 ? Format::kVersion : serializer.GetSubjectVersion());
  MetaInfo meta{name};
  meta.version = version.GetElementVersion();
  meta.traits = Format::GetTraits();
  const ElementWriter element(serializer, std::move(meta));
  Format::Write(serializer, value);
}

// Goes from one iterator to another one and writes each value as an "item".
template <class Iterator>
class ValueIterator final : public ContainerIterator {
 public:
  ValueIterator(Iterator begin, Iterator end) : at_(std::move(begin)), end_(std::move(end)) {}

  bool IsAtEnd() const override { return at_ == end_; }
  void Next() override { ++at_; }
  void WriteCurrent(Serializer& serializer) override { WriteRecord(serializer, kItemName, *at_); }

 private:
  Iterator at_;
  const Iterator end_;
};

// Writes a sequence as the element `meta`, in the serializer's own form if it has one. Without a
// name the sequence goes into the open element.
template <class T>
void WriteSequence(Serializer& serializer, const std::vector<T>& values,
                   const MetaInfo& meta = MetaInfo()) {
  ValueIterator iterator(values.begin(), values.end());
  if (auto* const aware = Common::QueryInterface<ContainerAwareSerializer>(serializer)) {
    aware->WriteContainer(meta, iterator);
    return;
  }
  const ElementWriter element(serializer, meta);
  const ElementWriter vector(serializer, MetaInfo(kVectorName));
  for (; !iterator.IsAtEnd(); iterator.Next()) iterator.WriteCurrent(serializer);
}

// Reads a sequence from the open element: the run of "item" at the beginning of its "vector".
// A failure of an item ends it; that item then stays at the end as far as it was read, and may be
// what a default value is.
template <class T>
void ReadSequence(Deserializer& deserializer, std::vector<T>& values) {
  const ElementReader vector(deserializer, MetaInfo(kVectorName));
  values.clear();
  const MetaInfo item(kItemName, true);
  while (deserializer.PeekMetaInfo() == item) {
    values.emplace_back();
    const ElementReader element(deserializer, item);
    RecordFormat<T>::Read(deserializer, values.back());
  }
}

template <class T>
struct RecordFormat<std::vector<T>> : PlainRecordFormat {
  static void Write(Serializer& serializer, const std::vector<T>& values) {
    WriteSequence(serializer, values);
  }
  static void Read(Deserializer& deserializer, std::vector<T>& values) {
    ReadSequence(deserializer, values);
  }
};

}  // namespace Serialization
