// The binary form of a unit: the short way of the reader and the walk that builds come to the same
// unit, or refuse alike; a unit that was read is written and read as the same one, and may be
// copied and changed.

#include <string>
#include <vector>

#include "enterprise/common/por/unit_accumulator.h"
#include "enterprise/common/por/unit_digest.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/walk_unit.h"
#include "fuzz/fuzz_units.h"

using namespace Por;

namespace {

OwnedUnit Build(const std::uint8_t* data, std::size_t size) {
  Util::UnitAccumulator accumulator(*GetStaticUnitFactory());
  Util::UnitBuildingWalker walker(accumulator);
  Util::FollowUnitBlob(data, size, walker);
  return accumulator.TakeResult();
}

OwnedUnit Read(const std::string& bytes) {
  const std::vector<unsigned char> copy(bytes.begin(), bytes.end());
  return Util::ReadUnitBlob(copy, *GetStaticUnitFactory());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  OwnedUnit unit;
  const std::string outcome = Fuzz::Outcome([&] {
    unit = Util::ReadUnitBlob(data, size, *GetStaticUnitFactory());
    return unit.get();
  });
  const std::string built = Fuzz::Outcome([&] { return Build(data, size); });
  // The two word the refusal of a stream that nests too deep in their own way.
  const bool both_refuse = outcome.starts_with("error ") && built.starts_with("error ");
  Fuzz::Require(both_refuse || outcome == built, "both ways of reading agree");
  if (unit == nullptr) return 0;

  Fuzz::RequireEqual(Fuzz::ToBytes(Read(outcome).get()), outcome,
                     "a unit that was read comes back");
  const OwnedUnit copy = Util::CopyUnit(*unit, *GetStaticUnitFactory());
  Fuzz::RequireEqual(Fuzz::ToBytes(copy.get()), outcome, "a copy is the same unit");
  Fuzz::Require(Util::ComputeUnitDigest(*unit) == Util::ComputeUnitDigest(*copy),
                "a copy has the same digest");

  // Having been changed, a tree ends in another way.
  Util::AddTrait(*unit, "fuzz", GetStaticUnitFactory()->CreateNil(), *GetStaticUnitFactory());
  Util::AddTrait(*copy, "fuzz", GetStaticUnitFactory()->CreateNil(), *GetStaticUnitFactory());
  Fuzz::RequireEqual(Fuzz::ToBytes(unit.get()), Fuzz::ToBytes(copy.get()),
                     "both can be changed alike");
  return 0;
}
