#pragma once

#include <cstddef>
#include <cstdint>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/small_stack.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/unit_traits_walker.h"

namespace Por::Util::Detail {

// The equality of two trees, worked off from a stack of its own. Any two units meet at most once,
// so the cost is at most the product of the sizes of the trees. Only traits that repeat a name make
// it recurse, one step for each level of such traits.
//
// For one computation on one thread; the trees must not change meanwhile. Throws std::bad_alloc.
class EqualityCheck : public Common::NonCopyable {
 public:
  bool UnitsEqual(const View::Unit& a, const View::Unit& b);
  bool ValuesEqual(const View::Unit& a, const View::Unit& b);
  // Each trait of `a` has an equal one in `b`.
  bool TraitsIncluded(const View::Unit& a, const View::Unit& b);
  void WalkPair(const View::Traits& left, const View::Traits& right, UnitTraitsWalker& walker);

 private:
  class ValueComparator;
  class ArrayEqualityChecker;
  class CompositeEqualityChecker;

  enum Part : std::uint32_t { kContents, kTraits };
  struct Task {
    const View::Unit* left;
    const View::Unit* right;
    Part part;
  };
  // Traits of one name, as places in `traits_`.
  struct Group {
    std::size_t begin;
    std::size_t end;
    std::size_t GetSize() const { return end - begin; }
  };
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  // What is marked as not inlined stays out of the frames of the recursion.
  //
  // False when the two units are seen to differ at once; what is still to be looked at is put on
  // the stack.
  [[gnu::noinline]] bool Begin(const View::Unit& a, const View::Unit& b);
  // Works off the stack down to `base`.
  bool Finish(std::size_t base);
  [[gnu::noinline]] bool ContentsEqual(const View::Unit& a, const View::Unit& b);
  bool TraitsEqual(const View::Unit& a, const View::Unit& b);
  bool AllMatch(Group lefts, Group rights);
  bool GroupsEqual(Group lefts, Group rights);

  [[gnu::noinline]] Group Collect(const View::Traits& traits);
  // The traits of the first name of `rest`.
  Group FirstGroup(Group rest) const;
  // Sign of the order of the first names of two rests.
  int CompareNames(Group lefts, Group rights) const;
  bool TraitsEqualAt(std::size_t left, std::size_t right);
  // Index in `rights` of a partner of the left trait `index`, or kNone.
  std::uint32_t FindPartner(Group lefts, Group rights, std::uint32_t index);
  // Whether an unmatched right trait `index` has a partner after all. `partners` is the place in
  // `marks_` of what FindPartner gave for each of `lefts`.
  [[gnu::noinline]] bool HasPartner(Group lefts, Group rights, std::uint32_t index,
                                    std::size_t partners);

  Por::Detail::SmallStack<Task, 16> tasks_;
  Por::Detail::SmallStack<const View::Trait*, 16> traits_;
  Por::Detail::SmallStack<std::uint32_t, 16> marks_;
};

}  // namespace Por::Util::Detail
