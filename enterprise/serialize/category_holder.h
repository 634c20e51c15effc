#pragma once

namespace Serialization {

// Base that marks objects of a category. It has no operations and owns nothing.
class CategoryHolder {
 protected:
  CategoryHolder() = default;
  CategoryHolder(const CategoryHolder&) = default;
  CategoryHolder& operator=(const CategoryHolder&) = default;
  ~CategoryHolder() = default;
};

}  // namespace Serialization
