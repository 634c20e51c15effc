#pragma once

#include "enterprise/common/por/name.h"
#include "enterprise/common/por/owned_list.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/value.h"

namespace Por {

// The properties of an in-memory composite, sorted by name.
class CompositeValueHolder final : public Construction::CompositeValue {
 public:
  CompositeValueHolder() = default;

  void ForEach(ItemProcessor<const View::Property>& processor) const override;
  bool Find(const Name& name, ItemProcessor<const View::Property>& processor) const override;
  PropertyIterator<const View::Property> GetIterator() const override;

  void ForEach(ItemProcessor<Modification::Property>& processor) override;
  bool Find(const Name& name, ItemProcessor<Modification::Property>& processor) override;

  void ForEach(ItemProcessor<Construction::Property>& processor) override;
  bool Find(const Name& name, ItemProcessor<Construction::Property>& processor) override;
  void Set(OwnedProperty property) override;
  void Remove(const Name& name) override;
  PropertyIterator<Construction::Property> GetIterator() override;

  // For whoever fills in the properties, in the order of their names.
  Detail::OwnedList<Construction::Property>& GetList() { return properties_; }

 private:
  using Properties = Detail::OwnedList<Construction::Property>;
  struct IteratorState;

  template <class Item>
  static PropertyIterator<Item> MakeIterator(const Properties& properties);

  Properties properties_;
};

}  // namespace Por
