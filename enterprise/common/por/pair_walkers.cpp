#include "enterprise/common/por/pair_walkers.h"

#include <cstddef>

#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/value.h"

namespace Por::Util {
namespace {

// Gets the right property of a left one's name.
class PairProcessor final : public ItemProcessor<const View::Property> {
 public:
  PairProcessor(CompositePropertyWalker& walker, const View::Property& left)
      : walker_(walker), left_(left) {}
  bool Process(const View::Property& right) override {
    stopped = walker_.OnPair(left_, right);
    return true;
  }
  bool stopped = false;

 private:
  CompositePropertyWalker& walker_;
  const View::Property& left_;
};

class LeftPropertyProcessor final : public ItemProcessor<const View::Property> {
 public:
  LeftPropertyProcessor(const View::CompositeValue& right, CompositePropertyWalker& walker)
      : right_(right), walker_(walker) {}
  bool Process(const View::Property& left) override {
    PairProcessor pair(walker_, left);
    if (right_.Find(left.GetName(), pair)) {
      ++pairs;
      stopped = pair.stopped;
    } else {
      stopped = walker_.OnLeftOnly(left);
    }
    return stopped;
  }
  std::size_t pairs = 0;
  bool stopped = false;

 private:
  const View::CompositeValue& right_;
  CompositePropertyWalker& walker_;
};

class RightPropertyProcessor final : public ItemProcessor<const View::Property> {
 public:
  RightPropertyProcessor(const View::CompositeValue& left, CompositePropertyWalker& walker)
      : left_(left), walker_(walker) {}
  bool Process(const View::Property& right) override {
    auto ignore = MakeProcessor<const View::Property>([](const View::Property&) {});
    return !left_.Find(right.GetName(), ignore) && walker_.OnRightOnly(right);
  }

 private:
  const View::CompositeValue& left_;
  CompositePropertyWalker& walker_;
};

// Gets the right element of a left one's index.
class SecondArrayProcessor final : public ItemProcessor<const View::Unit> {
 public:
  SecondArrayProcessor(ArrayElementsWalker& walker, const View::Unit& left)
      : walker_(walker), left_(left) {}
  bool Process(const View::Unit& right) override {
    stopped = walker_.OnPair(left_, right);
    return true;
  }
  bool stopped = false;

 private:
  ArrayElementsWalker& walker_;
  const View::Unit& left_;
};

class FirstArrayProcessor final : public ItemProcessor<const View::Unit> {
 public:
  FirstArrayProcessor(const View::ArrayValue& right, unsigned long long pairs,
                      ArrayElementsWalker& walker)
      : right_(right), pairs_(pairs), walker_(walker) {}
  bool Process(const View::Unit& left) override {
    if (index_ == pairs_) return true;
    SecondArrayProcessor second(walker_, left);
    right_.At(index_++, second);
    stopped = second.stopped;
    return stopped;
  }
  bool stopped = false;

 private:
  const View::ArrayValue& right_;
  const unsigned long long pairs_;
  ArrayElementsWalker& walker_;
  unsigned long long index_ = 0;
};

// Passes over the paired elements and gives the rest to one side of the walker.
class OverflowProcessor : public ItemProcessor<const View::Unit> {
 public:
  OverflowProcessor(unsigned long long pairs, ArrayElementsWalker& walker)
      : walker_(walker), paired_(pairs) {}
  bool Process(const View::Unit& unit) final {
    if (paired_ == 0) return Overflow(unit);
    --paired_;
    return false;
  }

 protected:
  virtual bool Overflow(const View::Unit& unit) = 0;

  ArrayElementsWalker& walker_;

 private:
  unsigned long long paired_;
};

class LeftOverflowProcessor final : public OverflowProcessor {
 public:
  using OverflowProcessor::OverflowProcessor;

 private:
  bool Overflow(const View::Unit& unit) override { return walker_.OnLeftOnly(unit); }
};

class RightOverflowProcessor final : public OverflowProcessor {
 public:
  using OverflowProcessor::OverflowProcessor;

 private:
  bool Overflow(const View::Unit& unit) override { return walker_.OnRightOnly(unit); }
};

}  // namespace

void WalkPair(const View::CompositeValue& left, const View::CompositeValue& right,
              CompositePropertyWalker& walker) {
  LeftPropertyProcessor lefts(right, walker);
  left.ForEach(lefts);
  if (lefts.stopped) return;
  // A name occurs once, so with as many properties as pairs the right side has no others.
  std::size_t rights = 0;
  auto count = MakeProcessor<const View::Property>(
      [&](const View::Property&) { return ++rights > lefts.pairs; });
  right.ForEach(count);
  if (rights == lefts.pairs) return;
  RightPropertyProcessor overflow(left, walker);
  right.ForEach(overflow);
}

void WalkPair(const View::ArrayValue& left, const View::ArrayValue& right,
              ArrayElementsWalker& walker) {
  const unsigned long long left_size = left.GetSize();
  const unsigned long long right_size = right.GetSize();
  const unsigned long long pairs = left_size < right_size ? left_size : right_size;
  FirstArrayProcessor first(right, pairs, walker);
  left.ForEach(first);
  if (first.stopped) return;
  if (left_size > pairs) {
    LeftOverflowProcessor overflow(pairs, walker);
    left.ForEach(overflow);
  } else if (right_size > pairs) {
    RightOverflowProcessor overflow(pairs, walker);
    right.ForEach(overflow);
  }
}

}  // namespace Por::Util
