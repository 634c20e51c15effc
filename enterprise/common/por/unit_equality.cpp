#include <string>
#include <vector>

#include "enterprise/common/por/array_elements_walker.h"
#include "enterprise/common/por/binary_value_operation.h"
#include "enterprise/common/por/composite_property_walker.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/unit_equality_check.h"
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
      check_.tasks_.Push({&left_, &right_, kContents});
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

namespace {

bool HasTraits(const View::Unit& unit) {
  bool any = false;
  auto first = MakeProcessor<const View::Trait>([&](const View::Trait&) { return any = true; });
  unit.GetTraits().ForEach(first);
  return any;
}

}  // namespace

bool EqualityCheck::UnitsEqual(const View::Unit& a, const View::Unit& b) {
  const std::size_t base = tasks_.GetSize();
  if (Begin(a, b) && Finish(base)) return true;
  tasks_.Truncate(base);
  return false;
}

bool EqualityCheck::ValuesEqual(const View::Unit& a, const View::Unit& b) {
  return ContentsEqual(a, b) && Finish(0);
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
    for (std::uint32_t i = 0; i < left_group.GetSize(); ++i) {
      if (FindPartner(left_group, right_group, i) == kNone) return false;
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
      for (std::uint32_t i = 0; i < group.GetSize(); ++i) {
        const std::uint32_t partner = FindPartner(group, others, i);
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
  if (HasTraits(a) || HasTraits(b)) tasks_.Push({&a, &b, kTraits});
  return true;
}

bool EqualityCheck::Finish(std::size_t base) {
  while (tasks_.GetSize() > base) {
    const Task task = tasks_.Pop();
    if (!(task.part == kContents ? ContentsEqual(*task.left, *task.right)
                                 : TraitsEqual(*task.left, *task.right))) {
      return false;
    }
  }
  return true;
}

bool EqualityCheck::ContentsEqual(const View::Unit& a, const View::Unit& b) {
  ValueComparator comparator(*this, a, b, true);
  BinaryValueOperation::Resolve(comparator, a, b);
  return comparator.equal;
}

bool EqualityCheck::TraitsEqual(const View::Unit& a, const View::Unit& b) {
  const std::size_t base = traits_.GetSize();
  const Group lefts = Collect(a.GetTraits());
  const Group rights = Collect(b.GetTraits());
  const bool equal = AllMatch(lefts, rights);
  traits_.Truncate(base);
  return equal;
}

bool EqualityCheck::AllMatch(Group lefts, Group rights) {
  while (lefts.GetSize() != 0 && rights.GetSize() != 0) {
    if (CompareNames(lefts, rights) != 0) return false;
    const Group left_group = FirstGroup(lefts);
    const Group right_group = FirstGroup(rights);
    if (left_group.GetSize() == 1 && right_group.GetSize() == 1) {
      // Nothing else can be the partner, so this is one more thing that must hold.
      if (!Begin(traits_[lefts.begin]->GetValue(), traits_[rights.begin]->GetValue())) return false;
    } else if (!GroupsEqual(left_group, right_group)) {
      return false;
    }
    lefts.begin = left_group.end;
    rights.begin = right_group.end;
  }
  return lefts.GetSize() == rights.GetSize();
}

bool EqualityCheck::GroupsEqual(Group lefts, Group rights) {
  const std::size_t partners = marks_.GetSize();
  const std::size_t matched = partners + lefts.GetSize();
  for (std::size_t i = 0; i < lefts.GetSize() + rights.GetSize(); ++i) marks_.Push(0);
  bool equal = true;
  for (std::uint32_t i = 0; equal && i < lefts.GetSize(); ++i) {
    const std::uint32_t partner = FindPartner(lefts, rights, i);
    marks_[partners + i] = partner;
    equal = partner != kNone;
    if (equal) marks_[matched + partner] = 1;
  }
  for (std::uint32_t i = 0; equal && i < rights.GetSize(); ++i) {
    equal = marks_[matched + i] != 0 || HasPartner(lefts, rights, i, partners);
  }
  marks_.Truncate(partners);
  return equal;
}

EqualityCheck::Group EqualityCheck::Collect(const View::Traits& traits) {
  const std::size_t begin = traits_.GetSize();
  auto all = MakeProcessor<const View::Trait>([this](const View::Trait& t) { traits_.Push(&t); });
  traits.ForEach(all);
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

// The right trait at the same place first: it is the partner whenever the two sides are equal.
std::uint32_t EqualityCheck::FindPartner(Group lefts, Group rights, std::uint32_t index) {
  const std::size_t left = lefts.begin + index;
  if (index < rights.GetSize() && TraitsEqualAt(left, rights.begin + index)) return index;
  for (std::uint32_t i = 0; i < rights.GetSize(); ++i) {
    if (i != index && TraitsEqualAt(left, rights.begin + i)) return i;
  }
  return kNone;
}

// Looks only at the left traits that FindPartner did not compare with this one.
bool EqualityCheck::HasPartner(Group lefts, Group rights, std::uint32_t index,
                               std::size_t partners) {
  for (std::uint32_t i = 0; i < lefts.GetSize(); ++i) {
    const std::uint32_t partner = marks_[partners + i];
    const bool compared = i == index || (partner != i && index <= partner);
    if (!compared && TraitsEqualAt(lefts.begin + i, rights.begin + index)) return true;
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
