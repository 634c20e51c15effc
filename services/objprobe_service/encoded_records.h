#pragma once

#include <cstddef>
#include <vector>

#include "enterprise/common/dml_view_common/view_record_formats.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/serialize/record.h"

// Units and updates as the service keeps them until a client takes them: in the binary form in
// which they travel. That costs a fraction of the units, its size is known, and nobody else can
// change it.

namespace ObjProbeService {

// Travels like a Por::SharedUnit.
struct EncodedUnit {
  std::vector<unsigned char> bytes;  // none: a null unit
};

// Travels like a Dml::ViewManagement::ViewUpdate.
struct EncodedUpdate {
  unsigned int type = Dml::ViewManagement::kUpdateCreated;
  EncodedUnit key;
  EncodedUnit packed_update;
};

// Throws what WriteUnitBlob throws.
EncodedUnit EncodeUnit(const Por::View::Unit& unit);

// Bytes that an update takes in memory.
std::size_t GetCost(const EncodedUpdate& update);
// Bytes that these take in a packet, or a few less.
std::size_t GetPacketSize(const EncodedUnit& unit);
std::size_t GetPacketSize(const EncodedUpdate& update);

}  // namespace ObjProbeService

namespace Serialization {

template <>
struct RecordFormat<ObjProbeService::EncodedUnit> : PlainRecordFormat {
  static void Write(Serializer& serializer, const ObjProbeService::EncodedUnit& unit);
};

template <>
struct RecordFormat<ObjProbeService::EncodedUpdate>
    : RecordFormat<Dml::ViewManagement::ViewUpdate> {
  static void Write(Serializer& serializer, const ObjProbeService::EncodedUpdate& update);
};

}  // namespace Serialization
