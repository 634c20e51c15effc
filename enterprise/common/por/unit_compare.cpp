#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "enterprise/common/por/array_elements_walker.h"
#include "enterprise/common/por/binary_value_operation.h"
#include "enterprise/common/por/composite_property_walker.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/small_stack.h"
#include "enterprise/common/por/unit_equality_check.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/value_kind.h"

namespace Por::Util {
namespace {

int Sign(int value) {
  return (value > 0) - (value < 0);
}

// With a NaN on either side: 1.
template <class T>
int CompareScalars(T a, T b) {
  return a < b ? -1 : a == b ? 0 : 1;
}

int CompareValues(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
  const std::size_t common = std::min(a.size(), b.size());
  const int bytes = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
  return bytes != 0 ? Sign(bytes) : CompareScalars(a.size(), b.size());
}

int CompareValues(const Common::Guid& a, const Common::Guid& b) {
  if (const int order = CompareScalars(a.First(), b.First())) return order;
  if (const int order = CompareScalars(a.Second(), b.Second())) return order;
  if (const int order = CompareScalars(a.Third(), b.Third())) return order;
  return Sign(std::memcmp(a.Tail(), b.Tail(), 8));
}

int CompareValues(const Common::String& a, const Common::String& b) {
  const std::size_t common = std::min(a.size(), b.size());
  const int units = std::char_traits<char16_t>::compare(a.data(), b.data(), common);
  return units != 0 ? Sign(units) : CompareScalars(a.size(), b.size());
}

int CompareValues(const Common::Error& a, const Common::Error& b) {
  return CompareErrors(a, b);
}

// The order of two trees, worked off from stacks of its own: no recursion. The first difference
// decides, so the pairs of units still to be compared lie in the order of their weight.
//
// The traits of two units are compared by looking for the least of the unmatched ones of a name,
// which compares siblings. Without the memory of those results a small tree of such traits could
// ask for the same pair of siblings on more ways than can ever be gone.
class Comparison : public Common::NonCopyable {
 public:
  int Compare(const View::Unit& a, const View::Unit& b) {
    const int order = Begin(a, b);
    return order != 0 || tasks_.GetSize() == 0 ? order : Finish();
  }

 private:
  class PerformValueCompare;
  class ArrayComparisonWalker;
  class CompositeComparisonWalker;
  class TraitsComparisonWalker;

  enum Part : unsigned int { kUnits, kTraits };
  struct Task {
    const View::Unit* left;
    const View::Unit* right;
    Part part;
  };
  // The search for the least of the unmatched traits of one name, first on the left, then on the
  // right: each is compared to the least of those before it.
  struct Choice {
    // Places in `unmatched_`: the left traits are from `begin`, the right ones from `middle`.
    std::size_t begin;
    std::size_t middle;
    std::size_t end;
    std::size_t left_least;  // once `next` is past `middle`
    std::size_t least;       // of the side in work
    std::size_t next;        // the one that is compared to it
    std::size_t tasks;       // those from this place on belong to that comparison
  };
  using Siblings = std::pair<const View::Unit*, const View::Unit*>;
  struct SiblingsHash {
    std::size_t operator()(const Siblings& pair) const {
      const std::hash<const View::Unit*> hash;
      return hash(pair.first) * 31 + hash(pair.second);
    }
  };

  // The order of two units as far as it is seen at once; what is still to be compared if that is 0
  // becomes at most one task.
  int Begin(const View::Unit& a, const View::Unit& b);
  int Finish();
  int CompareUnits(const View::Unit& a, const View::Unit& b);
  // Opens a choice when the values of unmatched traits have to decide.
  int CompareTraits(const View::Unit& a, const View::Unit& b);
  // Takes the answer for the comparison in work and goes on; false when both sides are decided.
  bool Advance(Choice& choice, int answer);
  // The order of the two least traits.
  int EndChoice();
  const View::Unit& ValueAt(std::size_t place) const { return unmatched_[place]->GetValue(); }

  Detail::EqualityCheck equality_;
  Por::Detail::SmallStack<Task, 16> tasks_;
  Por::Detail::SmallStack<Choice, 2> choices_;
  Por::Detail::SmallStack<const View::Trait*, 16> unmatched_;
  // Of siblings whose order was not seen at once.
  std::unordered_map<Siblings, int, SiblingsHash> known_;
};

class Comparison::ArrayComparisonWalker final : public ArrayElementsWalker {
 public:
  explicit ArrayComparisonWalker(Comparison& comparison)
      : comparison_(comparison), base_(comparison.tasks_.GetSize()) {}
  bool OnPair(const View::Unit& left, const View::Unit& right) override {
    if (comparison_.tasks_.GetSize() != base_) {
      // Weighs less than a pair that had to be put off.
      comparison_.tasks_.Push({&left, &right, kUnits});
      return false;
    }
    order = comparison_.Begin(left, right);
    return order != 0;
  }
  bool OnLeftOnly(const View::Unit&) override { return true; }
  bool OnRightOnly(const View::Unit&) override { return true; }
  int order = 0;

 private:
  Comparison& comparison_;
  const std::size_t base_;
};

class Comparison::CompositeComparisonWalker final : public CompositePropertyWalker {
 public:
  explicit CompositeComparisonWalker(Comparison& comparison)
      : comparison_(comparison), base_(comparison.tasks_.GetSize()) {}
  bool OnPair(const View::Property& left, const View::Property& right) override {
    if (left_only_ != nullptr || order_ != 0) return false;
    if (comparison_.tasks_.GetSize() != base_) {
      comparison_.tasks_.Push({&left.GetValue(), &right.GetValue(), kUnits});
    } else {
      order_ = comparison_.Begin(left.GetValue(), right.GetValue());
    }
    return false;
  }
  bool OnLeftOnly(const View::Property& left) override {
    if (left_only_ == nullptr) left_only_ = &left;
    return false;
  }
  bool OnRightOnly(const View::Property& right) override {
    right_only_ = &right;
    return true;
  }
  // Unmatched names outweigh all values; a side without one counts as the empty name.
  int GetOrder() const {
    if (left_only_ == nullptr && right_only_ == nullptr) return order_;
    comparison_.tasks_.Truncate(base_);
    const Name none;
    const Name& left = left_only_ != nullptr ? left_only_->GetName() : none;
    const Name& right = right_only_ != nullptr ? right_only_->GetName() : none;
    return Sign(left.Compare(right));
  }

 private:
  Comparison& comparison_;
  const std::size_t base_;
  int order_ = 0;
  const View::Property* left_only_ = nullptr;
  const View::Property* right_only_ = nullptr;
};

// Keeps, of each side, the unmatched traits of the first name that has any. Pairs are equal, so
// there is nothing to compare in them.
class Comparison::TraitsComparisonWalker final : public UnitTraitsWalker {
 public:
  explicit TraitsComparisonWalker(Comparison& comparison)
      : unmatched_(comparison.unmatched_), begin_(unmatched_.GetSize()), middle_(begin_) {}
  bool OnPair(const View::Trait&, const View::Trait&) override { return false; }
  bool OnLeftOnly(const View::Trait& left) override {
    left_closed_ = left_closed_ || !Keep(left, begin_);
    middle_ = unmatched_.GetSize();
    return false;
  }
  bool OnRightOnly(const View::Trait& right) override { return !Keep(right, middle_); }

  // Places in `unmatched_` of the first left and the first right one.
  std::size_t GetBegin() const { return begin_; }
  std::size_t GetMiddle() const { return middle_; }

 private:
  // False for a trait of another name than the kept ones.
  bool Keep(const View::Trait& trait, std::size_t first) {
    if (unmatched_.GetSize() != first && !(unmatched_[first]->GetName() == trait.GetName())) {
      return false;
    }
    unmatched_.Push(&trait);
    return true;
  }

  Por::Detail::SmallStack<const View::Trait*, 16>& unmatched_;
  const std::size_t begin_;
  std::size_t middle_;
  bool left_closed_ = false;
};

// The order of two values. Arrays and composites are either put off or gone through.
class Comparison::PerformValueCompare {
 public:
  PerformValueCompare(Comparison& comparison, bool enter)
      : comparison_(comparison), enter_(enter) {}

  void operator()(const auto& left, const auto& right) {
    order = Detail::IndexOfValue(left) < Detail::IndexOfValue(right) ? -1 : 1;
  }
  void operator()(const View::NilValue&, const View::NilValue&) {}
  template <class T>
  void operator()(const View::ScalarValue<T>& left, const View::ScalarValue<T>& right) {
    order = CompareScalars(left.Get(), right.Get());
  }
  template <class T>
  void operator()(const View::ComplexValue<T>& left, const View::ComplexValue<T>& right) {
    order = CompareValues(left.Get(), right.Get());
  }
  void operator()(const View::ArrayValue& left, const View::ArrayValue& right) {
    order = CompareScalars(left.GetSize(), right.GetSize());
    put_off = order == 0 && !enter_;
    if (order != 0 || put_off) return;
    ArrayComparisonWalker walker(comparison_);
    WalkPair(left, right, walker);
    order = walker.order;
  }
  void operator()(const View::CompositeValue& left, const View::CompositeValue& right) {
    put_off = !enter_;
    if (put_off) return;
    CompositeComparisonWalker walker(comparison_);
    WalkPair(left, right, walker);
    order = walker.GetOrder();
  }
  int order = 0;
  bool put_off = false;

 private:
  Comparison& comparison_;
  const bool enter_;
};

int Comparison::Begin(const View::Unit& a, const View::Unit& b) {
  if (&a == &b) return 0;
  PerformValueCompare values(*this, false);
  BinaryValueOperation::Resolve(values, a, b);
  if (values.put_off) {
    tasks_.Push({&a, &b, kUnits});
  } else if (values.order == 0 && (HasTraits(a) || HasTraits(b))) {
    tasks_.Push({&a, &b, kTraits});
  }
  return values.order;
}

int Comparison::Finish() {
  int order = 0;
  while (true) {
    const std::size_t depth = choices_.GetSize();
    const std::size_t floor = depth == 0 ? 0 : choices_[depth - 1].tasks;
    while (order == 0 && tasks_.GetSize() > floor && choices_.GetSize() == depth) {
      const Task task = tasks_.Pop();
      order = task.part == kUnits ? CompareUnits(*task.left, *task.right)
                                  : CompareTraits(*task.left, *task.right);
    }
    if (choices_.GetSize() == depth) tasks_.Truncate(floor);
    if (choices_.GetSize() == 0) return order;
    order = Advance(choices_[choices_.GetSize() - 1], order) ? 0 : EndChoice();
  }
}

int Comparison::CompareUnits(const View::Unit& a, const View::Unit& b) {
  if (&a == &b) return 0;
  if (HasTraits(a) || HasTraits(b)) tasks_.Push({&a, &b, kTraits});
  const std::size_t first = tasks_.GetSize();
  PerformValueCompare values(*this, true);
  BinaryValueOperation::Resolve(values, a, b);
  std::reverse(tasks_.begin() + first, tasks_.begin() + tasks_.GetSize());
  return values.order;
}

int Comparison::CompareTraits(const View::Unit& a, const View::Unit& b) {
  TraitsComparisonWalker walker(*this);
  equality_.WalkPair(a.GetTraits(), b.GetTraits(), walker);
  const std::size_t begin = walker.GetBegin();
  const std::size_t middle = walker.GetMiddle();
  const std::size_t end = unmatched_.GetSize();
  int order = 0;
  if (begin == middle || middle == end) {
    order = CompareScalars(middle - begin, end - middle);
  } else {
    order = Sign(unmatched_[begin]->GetName().Compare(unmatched_[middle]->GetName()));
    if (order == 0) {
      // As if the first had just been compared to itself.
      choices_.Push({begin, middle, end, begin, begin, begin, tasks_.GetSize()});
      return 0;
    }
  }
  unmatched_.Truncate(begin);
  return order;
}

bool Comparison::Advance(Choice& choice, int answer) {
  if (choice.next != choice.least) {
    known_.emplace(Siblings(&ValueAt(choice.next), &ValueAt(choice.least)), answer);
  }
  while (true) {
    if (answer == -1) choice.least = choice.next;
    ++choice.next;
    if (choice.next == choice.end) return false;
    if (choice.next == choice.middle) {
      choice.left_least = choice.least;
      choice.least = choice.middle;
      answer = 0;
      continue;
    }
    const View::Unit& next = ValueAt(choice.next);
    const View::Unit& least = ValueAt(choice.least);
    answer = Begin(next, least);
    if (tasks_.GetSize() == choice.tasks) continue;
    const auto known = known_.find({&next, &least});
    if (known == known_.end()) return true;
    answer = known->second;
    tasks_.Truncate(choice.tasks);
  }
}

int Comparison::EndChoice() {
  const Choice choice = choices_.Pop();
  const View::Unit& left = ValueAt(choice.left_least);
  const View::Unit& right = ValueAt(choice.least);
  unmatched_.Truncate(choice.begin);
  return Begin(left, right);
}

}  // namespace

int Compare(const View::Unit& a, const View::Unit& b) {
  return Comparison().Compare(a, b);
}

bool Less(const View::Unit& a, const View::Unit& b) {
  return &a != &b && Compare(a, b) == -1;
}

}  // namespace Por::Util
