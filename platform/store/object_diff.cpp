#include "platform/store/object_diff.h"

#include <cstddef>
#include <utility>

#include "enterprise/common/por/binary_value_operation.h"
#include "enterprise/common/por/composite_property_walker.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/small_stack.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"

namespace Platform::Store {

namespace {

using Por::View::Property;
using Por::View::Unit;

// A property of one composite or of both; a null unit where it is missing.
struct Pair {
  const Por::Name* name;
  const Unit* before;
  const Unit* after;
};
using Pairs = Por::Detail::SmallStack<Pair, 32>;

class PairCollector final : public Por::Util::CompositePropertyWalker {
 public:
  explicit PairCollector(Pairs& pairs) : pairs_(pairs) {}
  bool OnPair(const Property& before, const Property& after) override {
    pairs_.Push({&after.GetName(), &before.GetValue(), &after.GetValue()});
    return false;
  }
  bool OnLeftOnly(const Property& before) override {
    pairs_.Push({&before.GetName(), &before.GetValue(), nullptr});
    return false;
  }
  bool OnRightOnly(const Property& after) override {
    pairs_.Push({&after.GetName(), nullptr, &after.GetValue()});
    return false;
  }

 private:
  Pairs& pairs_;
};

// Lists the properties of two composites; nothing for other values.
class CompositeLister {
 public:
  explicit CompositeLister(Pairs& pairs) : pairs_(pairs) {}
  void operator()(const auto&, const auto&) {}
  void operator()(const Por::View::CompositeValue& before, const Por::View::CompositeValue& after) {
    are_composites = true;
    PairCollector collector(pairs_);
    Por::Util::WalkPair(before, after, collector);
  }

  bool are_composites = false;

 private:
  Pairs& pairs_;
};

// Pairs are listed first and compared afterwards: a level of the trees costs one frame.
class DiffMaker {
 public:
  explicit DiffMaker(const Por::Construction::UnitFactory& factory) : factory_(factory) {}

  // Null when there is no difference.
  Por::OwnedUnit Make(const Unit& before, const Unit& after) {
    const std::size_t begin = pairs_.GetSize();
    CompositeLister lister(pairs_);
    Por::Util::BinaryValueOperation::Resolve(lister, before, after);
    if (!lister.are_composites) {
      return Por::Util::UnitEqual(before, after) ? nullptr : Por::Util::CopyUnit(after, factory_);
    }
    const std::size_t end = pairs_.GetSize();
    Por::OwnedUnit diff;
    for (std::size_t i = begin; i < end; ++i) {
      const Pair pair = pairs_[i];
      Por::OwnedUnit value = MakeProperty(pair);
      if (value == nullptr) continue;
      if (diff == nullptr) diff = factory_.CreateComposite();
      Por::Util::AddProperty(*diff, *pair.name, std::move(value), factory_);
    }
    pairs_.Truncate(begin);
    if (diff == nullptr) {
      if (HaveEqualTraits(before, after)) return nullptr;
      diff = factory_.CreateComposite();
    }
    CopyTraits(after, *diff);
    return diff;
  }

  void CopyTraits(const Unit& from, Por::Construction::Unit& to) {
    auto copy = Por::MakeProcessor<const Por::View::Trait>([&](const Por::View::Trait& trait) {
      Por::Util::AddTrait(to, trait.GetName(), Por::Util::CopyUnit(trait.GetValue(), factory_),
                          factory_);
    });
    from.GetTraits().ForEach(copy);
  }

 private:
  Por::OwnedUnit MakeProperty(const Pair& pair) {
    if (pair.after == nullptr) {
      Por::OwnedUnit gone = factory_.CreateNil();
      Por::Util::AddTrait(*gone, "Nil", factory_.CreateNil(), factory_);
      return gone;
    }
    return pair.before != nullptr ? Make(*pair.before, *pair.after)
                                  : Por::Util::CopyUnit(*pair.after, factory_);
  }

  static bool HaveEqualTraits(const Unit& a, const Unit& b) {
    return Por::Util::TraitsIncluded(a, b) && Por::Util::TraitsIncluded(b, a);
  }

  const Por::Construction::UnitFactory& factory_;
  Pairs pairs_;
};

}  // namespace

Por::OwnedUnit MakeObjectDiff(const Unit& before, const Unit& after,
                              const Por::Construction::UnitFactory& factory) {
  DiffMaker maker(factory);
  Por::OwnedUnit diff = maker.Make(before, after);
  if (diff != nullptr) return diff;
  // Equal, and still stored in another form: a zero of the other sign, the words of an error.
  if (!Por::Util::IsComposite(after)) return Por::Util::CopyUnit(after, factory);
  diff = factory.CreateComposite();
  maker.CopyTraits(after, *diff);
  return diff;
}

}  // namespace Platform::Store
