#pragma once

#include <memory>

#include "core/common/string.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/unit.h"

// Handles: places in a tree as (root, path), so that a value is passed around without a pointer
// into the tree. Handles made from one another share a cell that holds the root, so all of them see
// a replaced root. Handles that share a cell belong to one thread at a time.

namespace Por {

namespace Detail {

// What both handles have; `Face` is the unit of their face.
template <class Face>
class UnitHandle {
 public:
  // The unit at the path. Nothing there throws Common::Error 0xFA0001.
  Face& GetUnit() const;
  // The same, sharing ownership of the root; null if there is nothing at the path.
  std::shared_ptr<Face> GetShared() const;
  // A deep copy of the unit at the path; null if there is nothing.
  OwnedUnit Clone() const;
  const Construction::UnitFactory* GetFactory() const { return factory_; }

 protected:
  using Cell = std::shared_ptr<std::shared_ptr<Face>>;

  // A moved handle is a copied one: its cell stays.
  UnitHandle(const UnitHandle&) = default;
  UnitHandle& operator=(const UnitHandle&) = default;
  ~UnitHandle() = default;

  UnitHandle(Cell root, Common::String path, const Construction::UnitFactory* factory);
  Face* Resolve() const;

  Cell root_;  // the cell is never null, the root in it may be
  Common::String path_;
  const Construction::UnitFactory* factory_;  // borrowed
};

extern template class UnitHandle<const View::Unit>;
extern template class UnitHandle<Construction::Unit>;

}  // namespace Detail

// A place to read from.
class ConstUnit : public Detail::UnitHandle<const View::Unit> {
 public:
  // `factory` makes the copies and must outlive the handle and those made from it.
  ConstUnit(SharedUnit root, const Construction::UnitFactory& factory);
  // A handle on the property of that name below this place.
  ConstUnit operator[](const Name& name) const;

 private:
  using UnitHandle::UnitHandle;
};

// A place to write to, too.
class MutableUnit : public Detail::UnitHandle<Construction::Unit> {
 public:
  // An empty composite made by the factory of the unit library. Throws Common::Error without one.
  MutableUnit();
  MutableUnit(std::shared_ptr<Construction::Unit> root, const Construction::UnitFactory& factory);
  MutableUnit operator[](const Name& name) const;

  // Puts the unit at the place, making composites on the way; at the empty path it becomes the
  // root, for all handles that share it. Throws what PutUnitInLocation throws.
  void Assign(OwnedUnit unit);

 private:
  using UnitHandle::UnitHandle;
};

}  // namespace Por
