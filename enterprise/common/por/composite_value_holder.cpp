#include "enterprise/common/por/composite_value_holder.h"

#include <memory>
#include <utility>

#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"

namespace Por {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/composite_value_holder"};

using PropertyList = Detail::OwnedList<Construction::Property>;

struct Place {
  std::size_t index;
  bool found;
};

Place Search(const PropertyList& properties, const Name& name) {
  std::size_t low = 0;
  std::size_t high = properties.GetSize();
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    const int order = name.Compare(properties[middle]->GetName());
    if (order == 0) return {middle, true};
    if (order < 0) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return {low, false};
}

template <class T>
void ProcessEach(const PropertyList& properties, ItemProcessor<T>& processor) {
  for (std::size_t i = 0; i < properties.GetSize(); ++i) {
    if (processor.Process(*properties[i])) return;
  }
}

template <class T>
bool ProcessFound(const PropertyList& properties, const Name& name, ItemProcessor<T>& processor) {
  const Place place = Search(properties, name);
  if (place.found) processor.Process(*properties[place.index]);
  return place.found;
}

}  // namespace

struct CompositeValueHolder::IteratorState {
  std::size_t position;
  const Properties* properties;

  static bool IsValid(const void* state) {
    const auto& self = *static_cast<const IteratorState*>(state);
    return self.position < self.properties->GetSize();
  }
  static void Advance(void* state) {
    if (IsValid(state)) ++static_cast<IteratorState*>(state)->position;
  }
  template <class Item>
  static Item& Current(void* state) {
    const auto& self = *static_cast<const IteratorState*>(state);
    return *(*self.properties)[self.position];
  }
};

template <class Item>
PropertyIterator<Item> CompositeValueHolder::MakeIterator(const Properties& properties) {
  return PropertyIterator<Item>(std::make_shared<IteratorState>(IteratorState{0, &properties}),
                                &IteratorState::Current<Item>, &IteratorState::Advance,
                                &IteratorState::IsValid);
}

void CompositeValueHolder::ForEach(ItemProcessor<const View::Property>& processor) const {
  ProcessEach(properties_, processor);
}

bool CompositeValueHolder::Find(const Name& name,
                                ItemProcessor<const View::Property>& processor) const {
  return ProcessFound(properties_, name, processor);
}

PropertyIterator<const View::Property> CompositeValueHolder::GetIterator() const {
  return MakeIterator<const View::Property>(properties_);
}

void CompositeValueHolder::ForEach(ItemProcessor<Modification::Property>& processor) {
  ProcessEach(properties_, processor);
}

bool CompositeValueHolder::Find(const Name& name,
                                ItemProcessor<Modification::Property>& processor) {
  return ProcessFound(properties_, name, processor);
}

void CompositeValueHolder::ForEach(ItemProcessor<Construction::Property>& processor) {
  ProcessEach(properties_, processor);
}

bool CompositeValueHolder::Find(const Name& name,
                                ItemProcessor<Construction::Property>& processor) {
  return ProcessFound(properties_, name, processor);
}

void CompositeValueHolder::Set(OwnedProperty property) {
  if (property == nullptr) {
    throw ModuleError(kPorNullUnit, Common::GetMessageText(Common::MessageRow::PorNullUnit),
                      kSource.At("Set", 104));
  }
  // Trees mostly come in their own order, so the place is mostly the end.
  const std::size_t size = properties_.GetSize();
  const Name& name = property->GetName();
  if (size == 0 || properties_[size - 1]->GetName() < name) {
    properties_.PushBack(std::move(property));
    return;
  }
  const Place place = Search(properties_, name);
  if (place.found) {
    properties_.Replace(place.index, std::move(property));
  } else {
    properties_.Insert(place.index, std::move(property));
  }
}

void CompositeValueHolder::Remove(const Name& name) {
  const Place place = Search(properties_, name);
  if (place.found) properties_.Erase(place.index, place.index + 1);
}

PropertyIterator<Construction::Property> CompositeValueHolder::GetIterator() {
  return MakeIterator<Construction::Property>(properties_);
}

}  // namespace Por
