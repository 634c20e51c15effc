#include "enterprise/common/por/composite_property_walker.h"

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

class RightOverflowProcessor final : public ItemProcessor<const View::Property> {
 public:
  RightOverflowProcessor(const View::CompositeValue& left, CompositePropertyWalker& walker)
      : left_(left), walker_(walker) {}
  bool Process(const View::Property& right) override {
    auto ignore = MakeProcessor<const View::Property>([](const View::Property&) {});
    return !left_.Find(right.GetName(), ignore) && walker_.OnRightOnly(right);
  }

 private:
  const View::CompositeValue& left_;
  CompositePropertyWalker& walker_;
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
  RightOverflowProcessor overflow(left, walker);
  right.ForEach(overflow);
}

}  // namespace Por::Util
