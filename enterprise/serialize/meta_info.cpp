#include "enterprise/serialize/meta_info.h"

#include <algorithm>
#include <cstring>

namespace Serialization {

namespace {

bool HaveSameTraits(const TraitList& left, const TraitList& right) {
  if (left == right) return true;
  if (left == nullptr || right == nullptr) return false;
  return std::equal(left->begin(), left->end(), right->begin(), right->end(),
                    [](const MetaInfoTrait& a, const MetaInfoTrait& b) {
                      return std::strcmp(a.name, b.name) == 0 && std::strcmp(a.type, b.type) == 0 &&
                             std::strcmp(a.value, b.value) == 0;
                    });
}

}  // namespace

bool operator==(const MetaInfo& left, const MetaInfo& right) {
  return left.name == right.name && HaveSameTraits(left.traits, right.traits) &&
         HaveSameTraits(left.common_traits, right.common_traits);
}

}  // namespace Serialization
