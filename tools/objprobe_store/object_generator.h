#pragma once

#include <cstdint>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit_factory.h"

namespace StoreTool {

// Makes the objects of an imaginary backup service: machines with their plans, tasks, archives and
// activities, which refer to each other by their identifications.
//
// Object `index` depends on the seed and the index alone. Twenty in a row are the objects of one
// machine: the machine, 2 plans, 5 tasks, 4 archives, 8 activities. Their binary forms take about
// 300 to 1200 bytes; all kinds of value and all shapes of keys occur.
class ObjectGenerator : public Common::NonCopyable {
 public:
  // `factory` must outlive the generator.
  ObjectGenerator(std::uint64_t seed, const Por::Construction::UnitFactory& factory)
      : seed_(seed), factory_(&factory) {}

  Por::OwnedUnit Make(std::uint64_t index) const;

 private:
  const std::uint64_t seed_;
  const Por::Construction::UnitFactory* const factory_;
};

}  // namespace StoreTool
