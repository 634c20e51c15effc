#pragma once

#include <vector>

#include "core/common/error.h"
#include "core/common/guid.h"
#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"

namespace Por::Util {

// Makes a unit from a flat run of calls: the value of a unit, then its traits, members and
// elements, then End. What each call does to the tree is the builder's affair, see UnitAccumulator.
class UnitBuilder : public Common::NonCopyable {
 public:
  virtual ~UnitBuilder() = default;

  // Values. Each gives the current unit its value or, inside an array, begins an element.
  virtual void Nil() = 0;
  virtual void Boolean(bool value) = 0;
  virtual void Byte(unsigned char value) = 0;
  virtual void SByte(signed char value) = 0;
  virtual void Word(unsigned short value) = 0;
  virtual void SWord(short value) = 0;
  virtual void DWord(unsigned int value) = 0;
  virtual void SDWord(int value) = 0;
  virtual void QWord(unsigned long long value) = 0;
  virtual void SQWord(long long value) = 0;
  virtual void Double(double value) = 0;
  virtual void Blob(const std::vector<unsigned char>& value) = 0;
  virtual void Guid(const Common::Guid& value) = 0;
  virtual void String(const Common::String& value) = 0;
  virtual void Error(const Common::Error& value) = 0;
  virtual void Array() = 0;
  virtual void Composite() = 0;

  // Begin the unit of a property of the current composite, or of a trait of the current unit.
  virtual void Property(const Name& name) = 0;
  virtual void Trait(const Name& name) = 0;
  // Ends the current unit.
  virtual void End() = 0;

  // The last root unit that was ended; null if there is none or it was taken before.
  virtual OwnedUnit TakeResult() = 0;
};

}  // namespace Por::Util
