#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/binary_data.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/parser/data_reader.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/unit_factory.h"

namespace Utils {

// A format in which units are read and written.
class PorFormat : public Common::NonCopyable {
 public:
  virtual ~PorFormat() = default;
  // The root unit; null if the source holds none. Throws Common::Error.
  virtual Por::OwnedUnit Read(DataReader& reader,
                              const Por::Construction::UnitFactory& factory) = 0;
  virtual void Write(const Por::View::Unit& unit, Por::Util::BinaryDataConsumer& sink) = 0;
};

}  // namespace Utils
