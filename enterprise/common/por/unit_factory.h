#pragma once

#include <memory>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/unit.h"

namespace Por::Construction {

// Makes units, traits and properties; keeps nothing of what it made.
class UnitFactory : public Common::NonCopyable {
 public:
  virtual ~UnitFactory() = default;
  virtual OwnedUnit CreateNil() const = 0;
  virtual OwnedUnit CreateBoolean(bool value) const = 0;
  virtual OwnedUnit CreateByte(unsigned char value) const = 0;
  virtual OwnedUnit CreateSByte(signed char value) const = 0;
  virtual OwnedUnit CreateWord(unsigned short value) const = 0;
  virtual OwnedUnit CreateSWord(short value) const = 0;
  virtual OwnedUnit CreateDWord(unsigned int value) const = 0;
  virtual OwnedUnit CreateSDWord(int value) const = 0;
  virtual OwnedUnit CreateQWord(unsigned long long value) const = 0;
  virtual OwnedUnit CreateSQWord(long long value) const = 0;
  virtual OwnedUnit CreateDouble(double value) const = 0;
  virtual OwnedUnit CreateBlob(const std::vector<unsigned char>& value) const = 0;
  virtual OwnedUnit CreateGuid(const Common::Guid& value) const = 0;
  virtual OwnedUnit CreateString(const Common::String& value) const = 0;
  // The records are copied through their byte form, so that the unit depends on nothing but them.
  // A record of code 0 is shared; a failed copy leaves an empty error.
  virtual OwnedUnit CreateError(const Common::Error& value) const = 0;
  virtual OwnedUnit CreateArray() const = 0;
  virtual OwnedUnit CreateComposite() const = 0;
  // A null value throws ModuleError 0xFA000B.
  virtual OwnedTrait CreateTrait(const Name& name, OwnedUnit value) const = 0;
  virtual OwnedProperty CreateProperty(const Name& name, OwnedUnit value) const = 0;
};

// Makes Por::Object units in memory, with empty traits. Stateless: share it freely.
class InMemoryUnitFactory final : public UnitFactory {
 public:
  OwnedUnit CreateNil() const override;
  OwnedUnit CreateBoolean(bool value) const override;
  OwnedUnit CreateByte(unsigned char value) const override;
  OwnedUnit CreateSByte(signed char value) const override;
  OwnedUnit CreateWord(unsigned short value) const override;
  OwnedUnit CreateSWord(short value) const override;
  OwnedUnit CreateDWord(unsigned int value) const override;
  OwnedUnit CreateSDWord(int value) const override;
  OwnedUnit CreateQWord(unsigned long long value) const override;
  OwnedUnit CreateSQWord(long long value) const override;
  OwnedUnit CreateDouble(double value) const override;
  OwnedUnit CreateBlob(const std::vector<unsigned char>& value) const override;
  OwnedUnit CreateGuid(const Common::Guid& value) const override;
  OwnedUnit CreateString(const Common::String& value) const override;
  OwnedUnit CreateError(const Common::Error& value) const override;
  OwnedUnit CreateArray() const override;
  OwnedUnit CreateComposite() const override;
  OwnedTrait CreateTrait(const Name& name, OwnedUnit value) const override;
  OwnedProperty CreateProperty(const Name& name, OwnedUnit value) const override;
};

std::unique_ptr<UnitFactory> CreateInMemoryUnitFactory();

}  // namespace Por::Construction

namespace Por {

// The process-wide in-memory factory. Never null and never destroyed: late library threads and
// static destructors may still ask for it. Threads: any.
Construction::UnitFactory* GetStaticUnitFactory();

}  // namespace Por
