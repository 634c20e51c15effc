#pragma once

#include <memory>
#include <vector>

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit_builder.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_walker.h"

namespace Por::Util {

// Chained calls on a unit builder:
//
//   UnitConstructor make(factory);
//   make.Composite().Property("Size").QWord(5).End().End();
//   OwnedUnit unit = make.TakeResult();
//
// A small value; all copies share the builder. Each call forwards to the builder, raises what it
// raises, and returns a copy of this object. Used by one thread at a time.
class UnitConstructor {
 public:
  // On a new UnitAccumulator. The factory must outlive this object and all its copies.
  explicit UnitConstructor(const Construction::UnitFactory& factory);
  // `builder` must not be null.
  UnitConstructor(std::shared_ptr<UnitBuilder> builder, const Construction::UnitFactory& factory);

  UnitConstructor Nil() const;
#define POR_CALL(index, Word, Value, Argument) UnitConstructor Word(Argument value) const;
  POR_SCALAR_KINDS(POR_CALL)
#undef POR_CALL
#define POR_CALL(index, Word, Value, Argument) UnitConstructor Word(const Argument& value) const;
  POR_COMPLEX_KINDS(POR_CALL)
#undef POR_CALL
  UnitConstructor Array() const;
  UnitConstructor Composite() const;
  UnitConstructor Property(const Name& name) const;
  UnitConstructor Trait(const Name& name) const;
  UnitConstructor End() const;
  OwnedUnit TakeResult() const;

  // Walks a whole existing unit into the builder, its value first, its End included.
  UnitConstructor Unit(const View::Unit& unit) const;

  const Construction::UnitFactory& GetFactory() const {
    return *factory_;
  }

 private:
  std::shared_ptr<UnitBuilder> builder_;
  const Construction::UnitFactory* factory_;
};

// Feeds a unit constructor.
class UnitConstructingWalker final : public CallingWalker<UnitConstructor> {
 public:
  using CallingWalker::CallingWalker;
};

}  // namespace Por::Util
