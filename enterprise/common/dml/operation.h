#pragma once

#include <memory>

#include "enterprise/common/por/plain_object.h"
#include "enterprise/common/por/unit_constructor.h"

// The vocabulary of changes that a client can ask a store for. An operation is a composite with a
// key of its own:
//
//   trait Is        "Dml::Operation::Definition"
//   trait Is        the name of its class, "Dml::Operation::CreateObject"
//   property ID     a GUID with nil traits Nil and PrimaryKey
//   the properties of its class, each nil with a nil trait Nil as long as it isn't set
//
// All classes are entered in Por::ConstructionDynamicContext before main. What the operations mean
// is the store's affair.

namespace Dml::Operation {

// What is common to all operations.
class Definition : public Por::BaseObject {
 public:
  static constexpr char16_t kName[] = u"Dml::Operation::Definition";

  // A new operation with nothing set, on a tree of its own. The factory must outlive it.
  explicit Definition(const Por::Construction::UnitFactory& factory = *Por::GetStaticUnitFactory());

  // Writes the prototype of the class.
  static void Define(const Por::Util::UnitConstructor& make);
  // A constant operation with nothing set, made when it is first asked for. Lives until the end of
  // main. Threads: any.
  static const Por::View::Unit& GetDefault();

 protected:
  Definition(std::shared_ptr<Por::Construction::Unit> root,
             const Por::Construction::UnitFactory& factory, DefaultValueFunction get_default);
};

// All others, in the order in which they are entered; each has what Definition has. Properties:
//
//   CreateObject      Object           StoreOrUpdate        Object
//   UpdateObject      Key, Patch       StoreOrConsolidate   Object
//   DeleteObject      Key              CreateIfNotExist     Object
//   UpdateByPattern   Pattern, Patch   ConsolidateIfExists  Object
//   DeleteByPattern   Pattern, Options BatchOperation       Operations, an empty array at first
#define DML_OPERATIONS(X) \
  X(CreateObject)         \
  X(UpdateObject)         \
  X(DeleteObject)         \
  X(UpdateByPattern)      \
  X(DeleteByPattern)      \
  X(StoreOrUpdate)        \
  X(StoreOrConsolidate)   \
  X(CreateIfNotExist)     \
  X(ConsolidateIfExists)  \
  X(BatchOperation)

#define DML_DECLARE_OPERATION(Class)                                                              \
  class Class : public Definition {                                                               \
   public:                                                                                        \
    static constexpr char16_t kName[] = u"Dml::Operation::" #Class;                               \
    explicit Class(const Por::Construction::UnitFactory& factory = *Por::GetStaticUnitFactory()); \
    static void Define(const Por::Util::UnitConstructor& make);                                   \
    static const Por::View::Unit& GetDefault();                                                   \
  };
DML_OPERATIONS(DML_DECLARE_OPERATION)
#undef DML_DECLARE_OPERATION

}  // namespace Dml::Operation
