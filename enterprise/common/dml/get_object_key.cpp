#include "enterprise/common/dml/get_object_key.h"

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/number_text.h"
#include "core/common/text.h"
#include "enterprise/common/por/const_data_accessor.h"
#include "enterprise/common/por/for_each_unit_by_level.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property_removing_unit_decorator.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit_digest.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_value_access.h"

namespace Dml {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/get_object_key"};

constexpr std::uint32_t kNoObjectKey = 0xFC000A;

constexpr char kPrimaryKey[] = "PrimaryKey";
constexpr char kForeignKey[] = "ForeignKey";
constexpr char kTimeStamp[] = "DmlTimeStamp";

// Takes the first key that the walk meets. The walk goes on behind an element of an array that
// stopped it; what comes then is ignored.
class ExtractKeyObject final : public Por::ItemProcessor<const Por::View::Unit>,
                               public Por::ItemProcessor<const Por::View::Trait> {
 public:
  bool Process(const Por::View::Unit& unit) override {
    if (key != nullptr) return true;
    unit.GetTraits().ForEach(kPrimaryKey, *this);
    if (key == nullptr) return false;
    if (Por::Util::GetValueTypeIndex(*key) == Por::kNilIndex) key = &unit;
    return true;
  }

  bool Process(const Por::View::Trait& trait) override {
    key = &trait.GetValue();
    return true;
  }

  const Por::View::Unit* key = nullptr;
};

Common::String GetGuidText(const Common::Guid& guid) {
  return Common::Utf8ToString(Common::GuidToString(guid).c_str());
}

}  // namespace

const Por::View::Unit& FindObjectKey(const Por::View::Unit& object) {
  ExtractKeyObject processor;
  Por::ForEachUnitByLevel(object, processor);
  if (processor.key == nullptr) {
    throw Common::Error(kNoObjectKey, Common::GetMessageText(Common::MessageRow::DmlNoObjectKey),
                        kSource.At("FindObjectKey", 50));
  }
  return *processor.key;
}

Common::Guid GetKeyGuid(const Por::View::Unit& key) {
  if (Por::Util::GetValueTypeIndex(key) == Por::kGuidIndex &&
      !Por::Util::HasTrait(key, kPrimaryKey) && !Por::Util::HasTrait(key, kForeignKey)) {
    return Por::Util::GetValue<Common::Guid>(Por::ConstDataAccessor(key).Get());
  }
  const Por::View::PropertyRemovingUnitDecorator view(key, kTimeStamp);
  return Por::Util::ComputeUnitDigest(view);
}

Common::String GetObjectKey(const Por::View::Unit& object) {
  return GetGuidText(GetKeyGuid(FindObjectKey(object)));
}

Common::String GetObjectKeyFromKey(const Por::View::Unit& key) {
  return GetGuidText(GetKeyGuid(key));
}

}  // namespace Dml
