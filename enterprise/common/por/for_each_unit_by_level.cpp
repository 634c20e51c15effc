#include "enterprise/common/por/for_each_unit_by_level.h"

#include "enterprise/common/por/property.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visitor.h"

namespace Por {

namespace {

// Notes whether a unit can have units below it; an empty array or composite counts.
class UnderLayerProbe {
 public:
  explicit UnderLayerProbe(bool& noted) : noted_(noted) {}
  template <class Value>
  void operator()(const Value&) {}
  void operator()(const View::ArrayValue&) { noted_ = true; }
  void operator()(const View::CompositeValue&) { noted_ = true; }

 private:
  bool& noted_;
};

class UnitShuttle;

// Steps through a value with the walker as the processor of its elements or properties.
class ValueShuttle {
 public:
  explicit ValueShuttle(UnitShuttle& walker) : walker_(walker) {}
  template <class Value>
  void operator()(const Value&) {}
  void operator()(const View::ArrayValue& value);
  void operator()(const View::CompositeValue& value);

 private:
  UnitShuttle& walker_;
};

// One walk carries the processor to the units at the target level.
class UnitShuttle final : public ItemProcessor<const View::Unit>,
                          public ItemProcessor<const View::Property> {
 public:
  explicit UnitShuttle(ItemProcessor<const View::Unit>& processor) : processor_(processor) {}

  void Run(const View::Unit& root) {
    for (target_level_ = 0;; ++target_level_) {
      current_level_ = 0;
      has_deeper_level_ = false;
      if (Process(root) || !has_deeper_level_) return;
    }
  }

  bool Process(const View::Unit& unit) override {
    if (current_level_ == target_level_) {
      const bool stop = processor_.Process(unit);
      if (!has_deeper_level_) {
        UnderLayerProbe probe(has_deeper_level_);
        View::Detail::UnitVisitorAdaptor reader(probe);
        unit.Accept(reader);
      }
      return stop;
    }
    ++current_level_;
    ValueShuttle shuttle(*this);
    View::Detail::UnitVisitorAdaptor reader(shuttle);
    unit.Accept(reader);
    --current_level_;
    return stop_;
  }

  bool Process(const View::Property& property) override {
    stop_ = Process(property.GetValue());
    return stop_;
  }

 private:
  ItemProcessor<const View::Unit>& processor_;
  unsigned int target_level_ = 0;
  unsigned int current_level_ = 0;
  bool has_deeper_level_ = false;
  // Set by the values of properties and never by the elements of arrays, so that a true for an
  // element ends its array and nothing else.
  bool stop_ = false;
};

void ValueShuttle::operator()(const View::ArrayValue& value) {
  value.ForEach(static_cast<ItemProcessor<const View::Unit>&>(walker_));
}

void ValueShuttle::operator()(const View::CompositeValue& value) {
  value.ForEach(static_cast<ItemProcessor<const View::Property>&>(walker_));
}

}  // namespace

void ForEachUnitByLevel(const View::Unit& unit, ItemProcessor<const View::Unit>& processor) {
  UnitShuttle(processor).Run(unit);
}

}  // namespace Por
