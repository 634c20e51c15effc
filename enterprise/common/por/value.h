#pragma once

#include <functional>
#include <memory>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/iterator.h"

// The value classes of the three faces: nil, scalars, complex values, arrays and composites.

namespace Por::View {

class NilValue : public Common::NonCopyable {
 public:
  virtual ~NilValue() = default;
};

template <class T>
class ScalarValue : public Common::NonCopyable {
 public:
  virtual ~ScalarValue() = default;
  virtual T Get() const = 0;
};

template <class T>
class ComplexValue : public Common::NonCopyable {
 public:
  virtual ~ComplexValue() = default;
  // Valid until the value is set or its unit destroyed.
  virtual const T& Get() const = 0;
};

// Ordered units, indexes from 0.
class ArrayValue : public Common::NonCopyable {
 public:
  virtual ~ArrayValue() = default;
  virtual bool IsEmpty() const = 0;
  virtual unsigned long long GetSize() const = 0;
  // Front and Back do nothing on an empty array; their callers ask IsEmpty first.
  virtual void Front(ItemProcessor<const Unit>& processor) const = 0;
  virtual void Back(ItemProcessor<const Unit>& processor) const = 0;
  // Throws ModuleError 0xFA000F when `index` is not below the size.
  virtual void At(unsigned long long index, ItemProcessor<const Unit>& processor) const = 0;
  // In order, until the processor returns true.
  virtual void ForEach(ItemProcessor<const Unit>& processor) const = 0;
};

// Named units: properties in strcmp order of their names, each name once.
class CompositeValue : public Common::NonCopyable {
 public:
  virtual ~CompositeValue() = default;
  // In name order, until the processor returns true.
  virtual void ForEach(ItemProcessor<const Property>& processor) const = 0;
  // Runs the processor on the property of that name and returns true; false if there is none.
  virtual bool Find(const Name& name, ItemProcessor<const Property>& processor) const = 0;
  virtual PropertyIterator<const Property> GetIterator() const = 0;
};

}  // namespace Por::View

namespace Por::Modification {

class NilValue : public View::NilValue {};

template <class T>
class ScalarValue : public View::ScalarValue<T> {
 public:
  virtual void Set(T value) = 0;
};

template <class T>
class ComplexValue : public View::ComplexValue<T> {
 public:
  // Copies; an error's records are shared.
  virtual void Set(const T& value) = 0;
};

class ArrayValue : public View::ArrayValue {
 public:
  using View::ArrayValue::At;
  using View::ArrayValue::Back;
  using View::ArrayValue::ForEach;
  using View::ArrayValue::Front;

  virtual void Clear() = 0;
  // A deep copy of `unit`, which may be an element of this array, goes in before `index`.
  // Throws ModuleError 0xFA000F when `index` is above the size.
  virtual void Insert(unsigned long long index, const View::Unit& unit) = 0;
  virtual void Erase(unsigned long long index) = 0;
  virtual void Front(ItemProcessor<Unit>& processor) = 0;
  virtual void Back(ItemProcessor<Unit>& processor) = 0;
  virtual void PushBack(const View::Unit& unit) = 0;
  virtual void PushFront(const View::Unit& unit) = 0;
  // Nothing on an empty array.
  virtual void PopBack() = 0;
  virtual void PopFront() = 0;
  virtual void At(unsigned long long index, ItemProcessor<Unit>& processor) = 0;
  virtual void ForEach(ItemProcessor<Unit>& processor) = 0;
};

class CompositeValue : public View::CompositeValue {
 public:
  using View::CompositeValue::Find;
  using View::CompositeValue::ForEach;

  virtual void ForEach(ItemProcessor<Property>& processor) = 0;
  virtual bool Find(const Name& name, ItemProcessor<Property>& processor) = 0;
};

}  // namespace Por::Modification

namespace Por::Construction {

class NilValue : public Modification::NilValue {};

template <class T>
class ScalarValue : public Modification::ScalarValue<T> {};

template <class T>
class ComplexValue : public Modification::ComplexValue<T> {};

class ArrayValue : public Modification::ArrayValue {
 public:
  using Modification::ArrayValue::At;
  using Modification::ArrayValue::Back;
  using Modification::ArrayValue::ForEach;
  using Modification::ArrayValue::Front;
  using Modification::ArrayValue::Insert;
  using Modification::ArrayValue::PushBack;
  using Modification::ArrayValue::PushFront;

  // These take ownership; a null unit is the caller's fault and is not checked.
  virtual void Insert(unsigned long long index, OwnedUnit unit) = 0;
  virtual void Front(ItemProcessor<Unit>& processor) = 0;
  virtual void Back(ItemProcessor<Unit>& processor) = 0;
  virtual void PushBack(OwnedUnit unit) = 0;
  virtual void PushFront(OwnedUnit unit) = 0;
  virtual void At(unsigned long long index, ItemProcessor<Unit>& processor) = 0;
  virtual void ForEach(ItemProcessor<Unit>& processor) = 0;
};

class CompositeValue : public Modification::CompositeValue {
 public:
  using Modification::CompositeValue::Find;
  using Modification::CompositeValue::ForEach;
  using View::CompositeValue::GetIterator;

  virtual void ForEach(ItemProcessor<Property>& processor) = 0;
  virtual bool Find(const Name& name, ItemProcessor<Property>& processor) = 0;
  // A new name goes in at its sorted place; the property of an existing name is destroyed and
  // replaced. Null throws ModuleError 0xFA000B.
  virtual void Set(OwnedProperty property) = 0;
  // Destroys the property of that name; no such name does nothing.
  virtual void Remove(const Name& name) = 0;
  virtual PropertyIterator<Property> GetIterator() = 0;
};

}  // namespace Por::Construction
