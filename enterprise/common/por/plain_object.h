#pragma once

#include <memory>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/serialize/category_holder.h"

// Typed objects whose data is a branch of a unit tree.

namespace Por {

// Gets the failures of an object's properties. Kinds are type indexes.
class ErrorHandler : public Common::NonCopyable {
 public:
  virtual ~ErrorHandler() = default;
  virtual void PropertyNotFound(const Name& name) = 0;
  virtual void PropertyTypeMismatch(const Name& name, unsigned int expected,
                                    unsigned int actual) = 0;
  virtual void PropertyProcessingError(const Name& name, const Common::Error& reason) = 0;
};

class PlainObject : public Common::NonCopyable {
 public:
  virtual ~PlainObject() = default;
  // The object as a new unit.
  virtual OwnedUnit CreateUnit() const = 0;
  // A constant of the object's class; it lives as long as that decides.
  virtual const View::Unit& DefaultValue() const = 0;
};

// An object on a branch of a tree. A copy is a second object on the same branch: both see each
// other's changes. Threads: the objects on one tree belong to one thread at a time.
class BaseObject : public PlainObject, public ::Serialization::CategoryHolder {
 public:
  // Gives the default value of a class.
  using DefaultValueFunction = const View::Unit& (*)();

  // `root` keeps the tree alive; `branch` lies in it or is null. The factory makes new units, may
  // be null and must outlive the object and its copies; so must the handler. Without a handler, one
  // is taken that throws a plain Common::Error for whatever it gets: 0xFA000D for a property that
  // isn't there, 0xFA000A for one of another kind, 0xFA0001 with the reason behind it for one that
  // can't be processed.
  explicit BaseObject(std::shared_ptr<Construction::Unit> root,
                      Construction::Unit* branch = nullptr,
                      const Construction::UnitFactory* factory = nullptr,
                      ErrorHandler* error_handler = nullptr);
  BaseObject(const BaseObject& other);

  // A deep copy of the branch. Throws as Branch and Factory.
  OwnedUnit CreateUnit() const override;
  // Calls the function that was set. Throws Common::Error 0xFA0001 without one.
  const View::Unit& DefaultValue() const override;

  // Throws Common::Error 0xFA0001 when there is none.
  const Construction::UnitFactory& Factory() const;
  Construction::Unit& Branch() const;

  void SetDefaultValue(DefaultValueFunction function) { default_value_ = function; }

 protected:
  ErrorHandler& GetErrorHandler() const { return *error_handler_; }

 private:
  std::shared_ptr<Construction::Unit> root_;
  Construction::Unit* branch_;                // borrowed from the tree, may be null
  const Construction::UnitFactory* factory_;  // borrowed, may be null
  ErrorHandler* error_handler_;               // borrowed, never null
  DefaultValueFunction default_value_ = nullptr;
};

}  // namespace Por
