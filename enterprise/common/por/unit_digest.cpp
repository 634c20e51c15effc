#include "enterprise/common/por/unit_digest.h"

#include "enterprise/common/por/binary_data.h"
#include "enterprise/common/por/unit_stream.h"

namespace Por::Util {

Common::Guid ComputeUnitDigest(const View::Unit& unit) {
  MD5HashConsumer hash;
  UnitStream::Write(unit, hash);
  return hash.Finish();
}

}  // namespace Por::Util
