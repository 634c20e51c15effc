#include "enterprise/common/por/array_value_holder.h"

#include <utility>

#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"

namespace Por {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/array_value_holder"};

using Elements = Detail::OwnedList<Construction::Unit>;

void CheckOutOfRange(unsigned long long index, unsigned long long bound) {
  if (index < bound) return;
  throw ModuleError(kPorOutOfRange, Common::GetMessageText(Common::MessageRow::PorOutOfRange),
                    kSource.At("CheckOutOfRange", 53));
}

// Comes before any change of the array: `unit` may be one of its elements or hold it.
OwnedUnit Copy(const View::Unit& unit) {
  return Util::CopyUnit(unit, Construction::InMemoryUnitFactory());
}

template <class T>
void ProcessFront(const Elements& elements, ItemProcessor<T>& processor) {
  if (!elements.IsEmpty()) processor.Process(*elements[0]);
}

template <class T>
void ProcessBack(const Elements& elements, ItemProcessor<T>& processor) {
  if (!elements.IsEmpty()) processor.Process(*elements[elements.GetSize() - 1]);
}

template <class T>
void ProcessAt(const Elements& elements, unsigned long long index, ItemProcessor<T>& processor) {
  CheckOutOfRange(index, elements.GetSize());
  processor.Process(*elements[index]);
}

template <class T>
void ProcessEach(const Elements& elements, ItemProcessor<T>& processor) {
  for (std::size_t i = 0; i < elements.GetSize(); ++i) {
    if (processor.Process(*elements[i])) return;
  }
}

}  // namespace

void ArrayValueHolder::Front(ItemProcessor<const View::Unit>& processor) const {
  ProcessFront(elements_, processor);
}

void ArrayValueHolder::Back(ItemProcessor<const View::Unit>& processor) const {
  ProcessBack(elements_, processor);
}

void ArrayValueHolder::At(unsigned long long index,
                          ItemProcessor<const View::Unit>& processor) const {
  ProcessAt(elements_, index, processor);
}

void ArrayValueHolder::ForEach(ItemProcessor<const View::Unit>& processor) const {
  ProcessEach(elements_, processor);
}

void ArrayValueHolder::Clear() {
  elements_.Erase(0, elements_.GetSize());
}

void ArrayValueHolder::Insert(unsigned long long index, const View::Unit& unit) {
  CheckOutOfRange(index, GetSize() + 1);
  elements_.Insert(index, Copy(unit));
}

void ArrayValueHolder::Erase(unsigned long long index) {
  CheckOutOfRange(index, GetSize());
  elements_.Erase(index, index + 1);
}

void ArrayValueHolder::Front(ItemProcessor<Modification::Unit>& processor) {
  ProcessFront(elements_, processor);
}

void ArrayValueHolder::Back(ItemProcessor<Modification::Unit>& processor) {
  ProcessBack(elements_, processor);
}

void ArrayValueHolder::PushBack(const View::Unit& unit) {
  elements_.PushBack(Copy(unit));
}

void ArrayValueHolder::PushFront(const View::Unit& unit) {
  elements_.Insert(0, Copy(unit));
}

void ArrayValueHolder::PopBack() {
  const std::size_t size = elements_.GetSize();
  if (size != 0) elements_.Erase(size - 1, size);
}

void ArrayValueHolder::PopFront() {
  if (!elements_.IsEmpty()) elements_.Erase(0, 1);
}

void ArrayValueHolder::At(unsigned long long index, ItemProcessor<Modification::Unit>& processor) {
  ProcessAt(elements_, index, processor);
}

void ArrayValueHolder::ForEach(ItemProcessor<Modification::Unit>& processor) {
  ProcessEach(elements_, processor);
}

void ArrayValueHolder::Insert(unsigned long long index, OwnedUnit unit) {
  CheckOutOfRange(index, GetSize() + 1);
  elements_.Insert(index, std::move(unit));
}

void ArrayValueHolder::Front(ItemProcessor<Construction::Unit>& processor) {
  ProcessFront(elements_, processor);
}

void ArrayValueHolder::Back(ItemProcessor<Construction::Unit>& processor) {
  ProcessBack(elements_, processor);
}

void ArrayValueHolder::PushBack(OwnedUnit unit) {
  elements_.PushBack(std::move(unit));
}

void ArrayValueHolder::PushFront(OwnedUnit unit) {
  elements_.Insert(0, std::move(unit));
}

void ArrayValueHolder::At(unsigned long long index, ItemProcessor<Construction::Unit>& processor) {
  ProcessAt(elements_, index, processor);
}

void ArrayValueHolder::ForEach(ItemProcessor<Construction::Unit>& processor) {
  ProcessEach(elements_, processor);
}

}  // namespace Por
