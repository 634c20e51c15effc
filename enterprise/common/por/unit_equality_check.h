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

// The equality of two trees, worked off from stacks of its own: no recursion, and in one question
// any two units meet at most once, so its cost is at most the product of the sizes of the trees.
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

  // What must hold for two units: that their elements or properties are equal, that all their
  // traits match, or that their traits of one name, which one of them has several times, match.
  enum Part : std::uint32_t { kContents, kTraits, kTraitsOfName };
  struct Task {
    const View::Unit* left;
    const View::Unit* right;
    Part part;
    const Name* name;
  };
  // Traits of one name, as places in `traits_`.
  struct Group {
    std::size_t begin;
    std::size_t end;
    std::uint32_t GetSize() const { return static_cast<std::uint32_t>(end - begin); }
  };
  // The search for partners within two groups, which asks for the equality of one pair of traits
  // after the other: first a partner for each left trait, then one for each right trait that
  // became no partner.
  struct Matching {
    Group lefts;
    Group rights;
    std::size_t marks;  // place in `marks_`: partners of the left traits, then which right are one
    std::size_t tasks;  // those from this place on must hold for the pair that is asked for
    std::uint32_t left;
    std::uint32_t right;
    std::uint32_t attempt;  // for `left`
    std::uint32_t start;    // where its attempts begin
    bool on_rights;
  };
  enum class Step { kAsk, kMatch, kDiffer };
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  // False when the two units are seen to differ at once; what is still to be looked at is put on
  // the stack.
  bool Begin(const View::Unit& a, const View::Unit& b);
  // Whether `so_far` and all tasks from `base` on hold. Leaves none of them.
  bool Finish(bool so_far, std::size_t base);
  bool ContentsEqual(const View::Unit& a, const View::Unit& b);
  bool TraitsEqual(const View::Unit& a, const View::Unit& b);

  void BeginMatching(const Task& task);
  void EndMatching();
  // Takes the answer for the pair asked for last, chooses the next one.
  Step Advance(Matching& matching, bool answer);

  template <class... Names>
  Group Collect(const View::Traits& traits, const Names&... name);
  // The traits of the first name of `rest`.
  Group FirstGroup(Group rest) const;
  // Sign of the order of the first names of two rests.
  int CompareNames(Group lefts, Group rights) const;
  bool TraitsEqualAt(std::size_t left, std::size_t right);
  // Candidates for the partner of a left trait are tried from the place behind the partner of the
  // left trait before it, round the group: both groups are sorted, so equal sides meet at the same
  // place, and sides that are moved against each other after one long search.
  static std::uint32_t Distance(std::uint32_t from, std::uint32_t to, std::uint32_t size) {
    return to >= from ? to - from : to + size - from;
  }
  // Where the search for the next left trait starts; `start` was where this one did.
  static std::uint32_t Behind(std::uint32_t partner, std::uint32_t start, std::uint32_t size) {
    return partner == kNone ? start : partner + 1 == size ? 0 : partner + 1;
  }
  // Whether a left trait whose search began at `start` and found `partner` was compared with the
  // right trait `right` on the way.
  static bool WasCompared(std::uint32_t start, std::uint32_t partner, std::uint32_t right,
                          std::uint32_t size) {
    return partner == kNone || Distance(start, right, size) <= Distance(start, partner, size);
  }
  // Index in `rights` of a partner of the left trait `left`, or kNone. Moves `start`.
  std::uint32_t FindPartner(Group lefts, Group rights, std::uint32_t left, std::uint32_t& start);
  // Whether an unmatched right trait has a partner after all. `partners` is the place in `marks_`
  // of what FindPartner gave for each of `lefts`.
  bool HasPartner(Group lefts, Group rights, std::uint32_t right, std::size_t partners);

  Por::Detail::SmallStack<Task, 16> tasks_;
  Por::Detail::SmallStack<Matching, 2> matchings_;
  Por::Detail::SmallStack<const View::Trait*, 16> traits_;
  Por::Detail::SmallStack<std::uint32_t, 16> marks_;
};

}  // namespace Por::Util::Detail
