#include "enterprise/common/por/unit_digest.h"

#include "enterprise/common/por/binary_data.h"
#include "enterprise/common/por/unit_stream.h"

namespace Por::Util {

Common::Guid ComputeUnitDigest(const View::Unit& unit) {
  MD5HashConsumer hash;
  // A block at a time: hashing is one chain of steps, each waiting for the one before, so that the
  // processor encodes the next block while it hashes this one.
  UnitStream::Write(unit, hash, MD5_BLOCK_SIZE);
  return hash.Finish();
}

}  // namespace Por::Util
