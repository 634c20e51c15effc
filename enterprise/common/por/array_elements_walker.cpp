#include "enterprise/common/por/array_elements_walker.h"

#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/value.h"

namespace Por::Util {
namespace {

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
