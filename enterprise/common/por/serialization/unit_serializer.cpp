#include "enterprise/common/por/serialization/unit_serializer.h"

#include <vector>

#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"

namespace Por::Serialization {

using ::Serialization::MetaInfo;

void WriteUnit(::Serialization::Serializer& serializer, const SharedUnit& unit) {
  if (auto* const aware = Common::QueryInterface<PorAwareSerializer>(serializer)) {
    aware->WriteUnit(MetaInfo(), unit);
    return;
  }
  serializer.Write(MetaInfo(::Serialization::kIsEmptyName), unit == nullptr);
  if (unit == nullptr) return;
  std::vector<unsigned char> bytes;
  Util::WriteUnitBlob(*unit, bytes);
  serializer.Write(MetaInfo(::Serialization::kValueName), bytes);
}

void ReadUnit(::Serialization::Deserializer& deserializer, SharedUnit& unit) {
  if (auto* const aware = Common::QueryInterface<PorAwareDeserializer>(deserializer)) {
    aware->ReadUnit(MetaInfo(), unit);
    return;
  }
  bool is_empty = true;
  deserializer.Read(MetaInfo(::Serialization::kIsEmptyName), is_empty);
  if (is_empty) {
    unit = nullptr;
    return;
  }
  std::vector<unsigned char> bytes;
  deserializer.Read(MetaInfo(::Serialization::kValueName), bytes);
  unit = Util::ReadUnitBlob(bytes, *GetStaticUnitFactory());
}

}  // namespace Por::Serialization
