#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/number_text.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/platform/store/store_fixture.h"
#include "tests/support/text.h"

// Objects with a number and a version, and what a client is told of them in a few characters.

namespace ObjProbeService {

using Units = std::vector<Por::SharedUnit>;
using Texts = std::vector<std::string>;

inline std::string Join(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) text += part;
  return text;
}

// An object with a version, of that type.
inline std::string MakeVersion(int number, unsigned int version,
                               const std::string& type = "Thing") {
  return Platform::Store::MakeObject(
      number, type, Join({".Property(\"V\").DWord(", std::to_string(version), ").End()"}));
}

inline std::string DescribeId(const Common::String& id) {
  return std::to_string(std::stoul(TestSupport::Utf8(id).substr(0, 8), nullptr, 16));
}
inline std::string DescribeVersion(const Por::View::Unit& unit) {
  const Por::View::Property* version = Por::Util::FindProperty(unit, "V");
  if (version == nullptr) return "";
  return Join({"v", std::to_string(Por::Util::GetValue<unsigned int>(version->GetValue()))});
}
inline Texts Describe(const Units& units) {
  Texts texts;
  for (const Por::SharedUnit& unit : units) {
    texts.push_back(DescribeId(Dml::GetObjectKey(*unit)) + DescribeVersion(*unit));
  }
  return texts;
}
// "+1v2" created, "~1v3" updated, "-1" deleted.
inline std::string Describe(const Dml::ViewManagement::ViewUpdate& update) {
  switch (update.type) {
    case Dml::ViewManagement::kUpdateCreated:
      return Join({"+", DescribeId(Dml::GetObjectKey(*update.key)), DescribeVersion(*update.key)});
    case Dml::ViewManagement::kUpdateUpdated:
      return Join({"~", DescribeId(Dml::GetObjectKeyFromKey(*update.key)),
                   DescribeVersion(*update.packed_update)});
    default:
      return Join({"-", DescribeId(Dml::GetObjectKeyFromKey(*update.key))});
  }
}
inline Texts Describe(const std::vector<Dml::ViewManagement::ViewUpdate>& updates) {
  Texts texts;
  for (const auto& update : updates) texts.push_back(Describe(update));
  return texts;
}
// The same of a transmission, behind the number of the channel: "3+1v2", "3 open", "3 closed",
// "3 error CODE".
inline std::string DescribeRecord(const Dml::ViewManagement::ViewUpdate& record) {
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

}  // namespace ObjProbeService
