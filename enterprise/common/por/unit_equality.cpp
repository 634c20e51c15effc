#include <string>
#include <vector>

#include "enterprise/common/por/array_elements_walker.h"
#include "enterprise/common/por/binary_value_operation.h"
#include "enterprise/common/por/composite_property_walker.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/unit_equality_check.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"

namespace Por::Util {
namespace Detail {

class EqualityCheck::ArrayEqualityChecker final : public ArrayElementsWalker {
 public:
  explicit ArrayEqualityChecker(EqualityCheck& check) : check_(check) {}
  bool OnPair(const View::Unit& left, const View::Unit& right) override {
    equal = check_.Begin(left, right);
    return !equal;
  }
  bool OnLeftOnly(const View::Unit&) override { return !(equal = false); }
  bool OnRightOnly(const View::Unit&) override { return !(equal = false); }
  bool equal = true;

 private:
  EqualityCheck& check_;
};

class EqualityCheck::CompositeEqualityChecker final : public CompositePropertyWalker {
 public:
  explicit CompositeEqualityChecker(EqualityCheck& check) : check_(check) {}
  bool OnPair(const View::Property& left, const View::Property& right) override {
    equal = check_.Begin(left.GetValue(), right.GetValue());
    return !equal;
  }
  bool OnLeftOnly(const View::Property&) override { return !(equal = false); }
  bool OnRightOnly(const View::Property&) override { return !(equal = false); }
  bool equal = true;

 private:
  EqualityCheck& check_;
};

// Equality of two values. Arrays and composites are either put on the stack or, when they come from
// there, gone through.
class EqualityCheck::ValueComparator {
 public:
  ValueComparator(EqualityCheck& check, const View::Unit& left, const View::Unit& right, bool enter)
      : check_(check), left_(left), right_(right), enter_(enter) {}

  void operator()(const auto&, const auto&) {}
  void operator()(const View::NilValue&, const View::NilValue&) { equal = true; }
  template <class T>
  void operator()(const View::ScalarValue<T>& left, const View::ScalarValue<T>& right) {
    equal = left.Get() == right.Get();
  }
  template <class T>
  void operator()(const View::ComplexValue<T>& left, const View::ComplexValue<T>& right) {
    equal = left.Get() == right.Get();
  }
  void operator()(const View::ComplexValue<Common::Error>& left,
                  const View::ComplexValue<Common::Error>& right) {
    equal = CompareErrors(left.Get(), right.Get()) == 0;
  }
  void operator()(const View::ArrayValue& left, const View::ArrayValue& right) {
    if (left.GetSize() == right.GetSize()) GoThrough<ArrayEqualityChecker>(left, right);
  }
  void operator()(const View::CompositeValue& left, const View::CompositeValue& right) {
    GoThrough<CompositeEqualityChecker>(left, right);
  }
  bool equal = false;

 private:
  template <class Walker>
  void GoThrough(const auto& left, const auto& right) {
    if (!enter_) {
      check_.tasks_.Push({&left_, &right_, kContents, nullptr});
      equal = true;
      return;
    }
    Walker walker(check_);
    Util::WalkPair(left, right, walker);
    equal = walker.equal;
  }

  EqualityCheck& check_;
  const View::Unit& left_;
  const View::Unit& right_;
  const bool enter_;
};

bool EqualityCheck::UnitsEqual(const View::Unit& a, const View::Unit& b) {
  const std::size_t base = tasks_.GetSize();
  return Finish(Begin(a, b), base);
}

bool EqualityCheck::ValuesEqual(const View::Unit& a, const View::Unit& b) {
  return Finish(ContentsEqual(a, b), 0);
}

bool EqualityCheck::TraitsIncluded(const View::Unit& a, const View::Unit& b) {
  Group lefts = Collect(a.GetTraits());
  Group rights = Collect(b.GetTraits());
  while (lefts.GetSize() != 0) {
    if (rights.GetSize() == 0) return false;
    const int order = CompareNames(lefts, rights);
    if (order < 0) return false;
    const Group right_group = FirstGroup(rights);
    rights.begin = right_group.end;
    if (order > 0) continue;
    const Group left_group = FirstGroup(lefts);
    lefts.begin = left_group.end;
    std::uint32_t start = 0;
    for (std::uint32_t i = 0; i < left_group.GetSize(); ++i) {
      if (FindPartner(left_group, right_group, i, start) == kNone) return false;
    }
  }
  return true;
}

void EqualityCheck::WalkPair(const View::Traits& left, const View::Traits& right,
                             UnitTraitsWalker& walker) {
  const std::size_t traits_base = traits_.GetSize();
  const std::size_t marks_base = marks_.GetSize();
  const Group all_lefts = Collect(left);
  const Group all_rights = Collect(right);
  // Marks: the partner of each left trait within its group, then whether a right one is a partner.
  const std::size_t partners = marks_base;
  const std::size_t matched = partners + all_lefts.GetSize();
  for (std::size_t i = 0; i < all_lefts.GetSize() + all_rights.GetSize(); ++i) marks_.Push(0);
  const auto partners_of = [&](Group lefts) { return partners + lefts.begin - all_lefts.begin; };
  const auto matched_of = [&](Group rights) { return matched + rights.begin - all_rights.begin; };

  const auto walk_lefts = [&] {
    for (Group lefts = all_lefts, rights = all_rights; lefts.GetSize() != 0;) {
      const Group group = FirstGroup(lefts);
      while (rights.GetSize() != 0 && CompareNames(lefts, rights) > 0) {
        rights.begin = FirstGroup(rights).end;
      }
      const bool paired = rights.GetSize() != 0 && CompareNames(lefts, rights) == 0;
      const Group others = paired ? FirstGroup(rights) : Group{rights.begin, rights.begin};
      std::uint32_t start = 0;
      for (std::uint32_t i = 0; i < group.GetSize(); ++i) {
        const std::uint32_t partner = FindPartner(group, others, i, start);
        marks_[partners_of(group) + i] = partner;
        const View::Trait& trait = *traits_[group.begin + i];
        if (partner == kNone) {
          if (walker.OnLeftOnly(trait)) return false;
          continue;
        }
        marks_[matched_of(others) + partner] = 1;
        if (walker.OnPair(trait, *traits_[others.begin + partner])) return false;
      }
      lefts.begin = group.end;
    }
    return true;
  };
  const auto walk_rights = [&] {
    for (Group lefts = all_lefts, rights = all_rights; rights.GetSize() != 0;) {
      const Group group = FirstGroup(rights);
      while (lefts.GetSize() != 0 && CompareNames(lefts, rights) < 0) {
        lefts.begin = FirstGroup(lefts).end;
      }
      const bool paired = lefts.GetSize() != 0 && CompareNames(lefts, rights) == 0;
      const Group others = paired ? FirstGroup(lefts) : Group{lefts.begin, lefts.begin};
      for (std::uint32_t i = 0; i < group.GetSize(); ++i) {
        if (marks_[matched_of(group) + i] != 0) continue;
        if (HasPartner(others, group, i, partners_of(others))) continue;
        if (walker.OnRightOnly(*traits_[group.begin + i])) return;
      }
      rights.begin = group.end;
    }
  };
  if (walk_lefts()) walk_rights();
  marks_.Truncate(marks_base);
  traits_.Truncate(traits_base);
}

bool EqualityCheck::Begin(const View::Unit& a, const View::Unit& b) {
  if (&a == &b) return true;
  ValueComparator comparator(*this, a, b, false);
  BinaryValueOperation::Resolve(comparator, a, b);
  if (!comparator.equal) return false;
  if (HasTraits(a) || HasTraits(b)) tasks_.Push({&a, &b, kTraits, nullptr});
  return true;
}

bool EqualityCheck::Finish(bool so_far, std::size_t base) {
  const std::size_t outermost = matchings_.GetSize();
  bool holds = so_far;
  while (true) {
    const std::size_t depth = matchings_.GetSize();
    std::size_t floor = depth == outermost ? base : matchings_[depth - 1].tasks;
    while (holds && tasks_.GetSize() > floor) {
      const Task task = tasks_.Pop();
      switch (task.part) {
        case kContents:
          holds = ContentsEqual(*task.left, *task.right);
          break;
        case kTraits:
          holds = TraitsEqual(*task.left, *task.right);
          break;
        case kTraitsOfName:
          BeginMatching(task);
          floor = tasks_.GetSize();
          holds = false;  // the answer to no question yet
          break;
      }
    }
    tasks_.Truncate(floor);
    if (matchings_.GetSize() == outermost) return holds;
    Matching& matching = matchings_[matchings_.GetSize() - 1];
    const Step step = Advance(matching, holds);
    if (step == Step::kAsk) {
      holds = Begin(traits_[matching.lefts.begin + matching.left]->GetValue(),
                    traits_[matching.rights.begin + matching.right]->GetValue());
    } else {
      holds = step == Step::kMatch;
      EndMatching();
    }
  }
}

bool EqualityCheck::ContentsEqual(const View::Unit& a, const View::Unit& b) {
  ValueComparator comparator(*this, a, b, true);
  BinaryValueOperation::Resolve(comparator, a, b);
  return comparator.equal;
}

bool EqualityCheck::TraitsEqual(const View::Unit& a, const View::Unit& b) {
  const std::size_t base = traits_.GetSize();
  Group lefts = Collect(a.GetTraits());
  Group rights = Collect(b.GetTraits());
  bool equal = true;
  while (equal && lefts.GetSize() != 0 && rights.GetSize() != 0) {
    equal = CompareNames(lefts, rights) == 0;
    if (!equal) break;
    const Group left_group = FirstGroup(lefts);
    const Group right_group = FirstGroup(rights);
    const View::Trait& left = *traits_[lefts.begin];
    if (left_group.GetSize() == 1 && right_group.GetSize() == 1) {
      // Nothing else can be the partner, so this is one more thing that must hold.
      equal = Begin(left.GetValue(), traits_[rights.begin]->GetValue());
    } else {
      tasks_.Push({&a, &b, kTraitsOfName, &left.GetName()});
    }
    lefts.begin = left_group.end;
    rights.begin = right_group.end;
  }
  traits_.Truncate(base);
  return equal && lefts.GetSize() == rights.GetSize();
}

void EqualityCheck::BeginMatching(const Task& task) {
  const Group lefts = Collect(task.left->GetTraits(), *task.name);
  const Group rights = Collect(task.right->GetTraits(), *task.name);
  const std::size_t marks = marks_.GetSize();
  for (std::uint32_t i = 0; i < lefts.GetSize() + rights.GetSize(); ++i) marks_.Push(0);
  matchings_.Push({lefts, rights, marks, tasks_.GetSize(), 0, 0, kNone, 0, false});
}

void EqualityCheck::EndMatching() {
  const Matching matching = matchings_.Pop();
  traits_.Truncate(matching.lefts.begin);
  marks_.Truncate(matching.marks);
}

EqualityCheck::Step EqualityCheck::Advance(Matching& matching, bool answer) {
  const std::uint32_t lefts = matching.lefts.GetSize();
  const std::uint32_t rights = matching.rights.GetSize();
  const std::size_t partners = matching.marks;
  const std::size_t matched = matching.marks + lefts;
  if (!matching.on_rights) {
    if (answer) {
      marks_[partners + matching.left] = matching.right;
      marks_[matched + matching.right] = 1;
      ++matching.left;
      matching.start = Behind(matching.right, 0, rights);
      matching.attempt = 0;
    } else {
      ++matching.attempt;
    }
    if (matching.left < lefts) {
      if (matching.attempt < rights) {
        matching.right = (matching.start + matching.attempt) % rights;
        return Step::kAsk;
      }
      return Step::kDiffer;
    }
    matching.on_rights = true;
    matching.start = 0;
    matching.left = 0;
    matching.right = 0;
  } else if (answer) {
    ++matching.right;
    matching.left = 0;
    matching.start = 0;
  } else {
    matching.start = Behind(marks_[partners + matching.left], matching.start, rights);
    ++matching.left;
  }
  for (; matching.right < rights; ++matching.right, matching.left = 0, matching.start = 0) {
    if (marks_[matched + matching.right] != 0) continue;
    for (; matching.left < lefts; ++matching.left) {
      const std::uint32_t partner = marks_[partners + matching.left];
      if (!WasCompared(matching.start, partner, matching.right, rights)) return Step::kAsk;
      matching.start = Behind(partner, matching.start, rights);
    }
    return Step::kDiffer;
  }
  return Step::kMatch;
}

template <class... Names>
EqualityCheck::Group EqualityCheck::Collect(const View::Traits& traits, const Names&... name) {
  const std::size_t begin = traits_.GetSize();
  auto all = MakeProcessor<const View::Trait>([this](const View::Trait& t) { traits_.Push(&t); });
  traits.ForEach(name..., all);
  return {begin, traits_.GetSize()};
}

EqualityCheck::Group EqualityCheck::FirstGroup(Group rest) const {
  Group group{rest.begin, rest.begin};
  while (group.end < rest.end && traits_[group.end]->GetName() == traits_[rest.begin]->GetName()) {
    ++group.end;
  }
  return group;
}

int EqualityCheck::CompareNames(Group lefts, Group rights) const {
  return traits_[lefts.begin]->GetName().Compare(traits_[rights.begin]->GetName());
}

bool EqualityCheck::TraitsEqualAt(std::size_t left, std::size_t right) {
  return UnitsEqual(traits_[left]->GetValue(), traits_[right]->GetValue());
}

std::uint32_t EqualityCheck::FindPartner(Group lefts, Group rights, std::uint32_t left,
                                         std::uint32_t& start) {
  const std::uint32_t size = rights.GetSize();
  for (std::uint32_t attempt = 0; attempt < size; ++attempt) {
    const std::uint32_t right = (start + attempt) % size;
    if (TraitsEqualAt(lefts.begin + left, rights.begin + right)) {
      start = Behind(right, start, size);
      return right;
    }
  }
  return kNone;
}

bool EqualityCheck::HasPartner(Group lefts, Group rights, std::uint32_t right,
                               std::size_t partners) {
  std::uint32_t start = 0;
  for (std::uint32_t i = 0; i < lefts.GetSize(); ++i) {
    const std::uint32_t partner = marks_[partners + i];
    if (!WasCompared(start, partner, right, rights.GetSize()) &&
        TraitsEqualAt(lefts.begin + i, rights.begin + right))
      return true;
    start = Behind(partner, start, rights.GetSize());
  }
  return false;
}

}  // namespace Detail

bool UnitValueEqual(const View::Unit& a, const View::Unit& b) {
  return Detail::EqualityCheck().ValuesEqual(a, b);
}

bool UnitEqual(const View::Unit& a, const View::Unit& b) {
  return Detail::EqualityCheck().UnitsEqual(a, b);
}

bool TraitsIncluded(const View::Unit& a, const View::Unit& b) {
  return Detail::EqualityCheck().TraitsIncluded(a, b);
}

}  // namespace Por::Util
