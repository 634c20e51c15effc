#pragma once

#include "enterprise/common/por/owned_list.h"
#include "enterprise/common/por/value.h"

namespace Por {

// The elements of an in-memory array.
class ArrayValueHolder final : public Construction::ArrayValue {
 public:
  ArrayValueHolder() = default;

  bool IsEmpty() const override { return elements_.IsEmpty(); }
  unsigned long long GetSize() const override { return elements_.GetSize(); }
  void Front(ItemProcessor<const View::Unit>& processor) const override;
  void Back(ItemProcessor<const View::Unit>& processor) const override;
  void At(unsigned long long index, ItemProcessor<const View::Unit>& processor) const override;
  void ForEach(ItemProcessor<const View::Unit>& processor) const override;

  void Clear() override;
  void Insert(unsigned long long index, const View::Unit& unit) override;
  void Erase(unsigned long long index) override;
  void Front(ItemProcessor<Modification::Unit>& processor) override;
  void Back(ItemProcessor<Modification::Unit>& processor) override;
  void PushBack(const View::Unit& unit) override;
  void PushFront(const View::Unit& unit) override;
  void PopBack() override;
  void PopFront() override;
  void At(unsigned long long index, ItemProcessor<Modification::Unit>& processor) override;
  void ForEach(ItemProcessor<Modification::Unit>& processor) override;

  void Insert(unsigned long long index, OwnedUnit unit) override;
  void Front(ItemProcessor<Construction::Unit>& processor) override;
  void Back(ItemProcessor<Construction::Unit>& processor) override;
  void PushBack(OwnedUnit unit) override;
  void PushFront(OwnedUnit unit) override;
  void At(unsigned long long index, ItemProcessor<Construction::Unit>& processor) override;
  void ForEach(ItemProcessor<Construction::Unit>& processor) override;

  // For whoever fills in the elements.
  Detail::OwnedList<Construction::Unit>& GetList() { return elements_; }

 private:
  Detail::OwnedList<Construction::Unit> elements_;
};

}  // namespace Por
