#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/serialize/record.h"
#include "enterprise/serialize/serializer.h"

// How a unit travels: "is_empty" and, unless that is true, "value" with the unit's binary form
// (enterprise/common/por/unit_blob.h).

namespace Por::Serialization {

// Offered by serializers that write units in a form of their own.
class PorAwareSerializer {
 public:
  static constexpr char kInterfaceName[] = "PN3Por13Serialization18PorAwareSerializerE";

  // `unit` may be null. Without a name it goes into the open element.
  virtual void WriteUnit(const ::Serialization::MetaInfo& meta, const SharedUnit& unit) = 0;

 protected:
  ~PorAwareSerializer() = default;
};

class PorAwareDeserializer {
 public:
  static constexpr char kInterfaceName[] = "PN3Por13Serialization20PorAwareDeserializerE";

  virtual void ReadUnit(const ::Serialization::MetaInfo& meta, SharedUnit& unit) = 0;

 protected:
  ~PorAwareDeserializer() = default;
};

// Writes a unit, which may be null, into the open element. Throws what WriteUnitBlob throws.
void WriteUnit(::Serialization::Serializer& serializer, const SharedUnit& unit);

// Reads a unit from the open element, as a unit of the process-wide in-memory factory.
// Null, without a failure, for "is_empty" and for a "value" that gives no unit: whoever takes a
// unit from here must be ready for that. Throws what the deserializer and ReadUnitBlob throw;
// `unit` then stays as it was.
void ReadUnit(::Serialization::Deserializer& deserializer, SharedUnit& unit);

}  // namespace Por::Serialization

namespace Serialization {

template <>
struct RecordFormat<Por::SharedUnit> : PlainRecordFormat {
  static void Write(Serializer& serializer, const Por::SharedUnit& unit) {
    Por::Serialization::WriteUnit(serializer, unit);
  }
  static void Read(Deserializer& deserializer, Por::SharedUnit& unit) {
    Por::Serialization::ReadUnit(deserializer, unit);
  }
};

}  // namespace Serialization
