#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Serialization {

// Fixed element names.
inline constexpr char kVectorName[] = "vector";  // a sequence
inline constexpr char kItemName[] = "item";      // one element of a container
inline constexpr char kIsEmptyName[] = "is_empty";
inline constexpr char kValueName[] = "value";

// One trait of a type, in static text that isn't owned. All traits in use have the name "Is", the
// type "StringValue" and as value the full name of a class.
struct MetaInfoTrait {
  const char* name = "";
  const char* type = "";
  const char* value = "";
};

// Shared and never changed once it is in use. Null: no traits.
using TraitList = std::shared_ptr<const std::vector<MetaInfoTrait>>;

// Describes one element. A plain value.
struct MetaInfo {
  MetaInfo() = default;
  explicit MetaInfo(std::string element_name, bool is_strict = false)
      : name(std::move(element_name)), strict(is_strict) {}

  // Empty: there is no element. Operations with it do nothing, and values written or read with it
  // are part of the enclosing element.
  std::string name;
  unsigned long long version = 0;  // of the element's content, 0: none
  TraitList traits;
  TraitList common_traits;
  // When reading: the element must be the next child, no search is made.
  bool strict = false;
  // The one category of packets in which this element exists, 0: all of them.
  unsigned int category = 0;
  // Stands for `version` in packets of `category`.
  unsigned long long category_version = 0;
};

// The same name and, text by text, the same traits. Versions, strictness and category play no part.
bool operator==(const MetaInfo& left, const MetaInfo& right);

}  // namespace Serialization
