#include "services/objprobe_service/encoded_records.h"

#include "enterprise/common/ipc/utils.h"
#include "enterprise/common/por/unit_blob.h"

namespace ObjProbeService {

namespace {

// Of the tags around a unit and around an update, without those of the unit's value.
constexpr std::size_t kUnitTags = 50;
constexpr std::size_t kUpdateTags = 190;

}  // namespace

EncodedUnit EncodeUnit(const Por::View::Unit& unit) {
  EncodedUnit encoded;
  Por::Util::WriteUnitBlob(unit, encoded.bytes);
  return encoded;
}

std::size_t GetCost(const EncodedUpdate& update) {
  return sizeof update + update.key.bytes.capacity() + update.packed_update.bytes.capacity();
}

// Base64 makes four bytes of three.
std::size_t GetPacketSize(const EncodedUnit& unit) {
  return kUnitTags + unit.bytes.size() / 3 * 4;
}

std::size_t GetPacketSize(const EncodedUpdate& update) {
  return kUpdateTags + GetPacketSize(update.key) + GetPacketSize(update.packed_update);
}

}  // namespace ObjProbeService

namespace Serialization {

void RecordFormat<ObjProbeService::EncodedUnit>::Write(Serializer& serializer,
                                                       const ObjProbeService::EncodedUnit& unit) {
  serializer.Write(MetaInfo(kIsEmptyName), unit.bytes.empty());
  if (!unit.bytes.empty()) serializer.Write(MetaInfo(kValueName), unit.bytes);
}

void RecordFormat<ObjProbeService::EncodedUpdate>::Write(
    Serializer& serializer, const ObjProbeService::EncodedUpdate& update) {
  Binding::WriteElement(serializer, "Type", update.type);
  Binding::WriteElement(serializer, "Key", update.key);
  Binding::WriteElement(serializer, "PackedUpdate", update.packed_update);
}

}  // namespace Serialization
