#pragma once

#include <vector>

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit_builder.h"
#include "enterprise/common/por/unit_factory.h"

namespace Por::Util {

// The stack machine that turns builder calls into a tree. Belongs to one thread.
//
// Each open unit is a frame; the calls act on the top one. A value call fills an empty frame, takes
// the place of a nil, and otherwise begins an element with a frame and an End of its own. Some
// rules that a caller may not expect:
//   - A value that follows a filled root is dropped, unless the root is an array.
//   - A value that takes the place of a nil ends as a property of the frame's name, whatever the
//     frame was begun as, but for a root: a trait becomes a property, an element raises.
//   - A value that follows a filled property begins an element; at its End it is dropped, as there
//     is no array to take it.
//   - Property on a name that the composite has changes that property in place by AssignUnit: kinds
//     must agree; an array or composite stays, and its elements are overwritten from the first on.
//   - End of a root stores it as the result and begins a new root: the last one wins, an empty one
//     leaves no result.
//
// Throws: ModuleError 0xFA000B for a property or trait without a value, or one whose enclosing unit
// has none; 0xFA0001 when more than kMaxUnitDepth units would be open; the type mismatch for a
// property of something that is no composite; what AssignUnit and the factory throw. After a
// failure the builder is fit for destruction only.
class UnitAccumulator final : public UnitBuilder {
 public:
  // The factory must outlive this object.
  explicit UnitAccumulator(const Construction::UnitFactory& factory);
  ~UnitAccumulator() override;

  void Nil() override;
#define POR_CALL(index, Word, Value, Argument) void Word(Argument value) override;
  POR_SCALAR_KINDS(POR_CALL)
#undef POR_CALL
#define POR_CALL(index, Word, Value, Argument) void Word(const Argument& value) override;
  POR_COMPLEX_KINDS(POR_CALL)
#undef POR_CALL
  void Array() override;
  void Composite() override;
  void Property(const Name& name) override;
  void Trait(const Name& name) override;
  void End() override;
  OwnedUnit TakeResult() override;

  // Whether a call raised because too many units were open.
  bool IsTooDeep() const {
    return too_deep_;
  }

 private:
  enum class Kind : unsigned char {
    Root = 0,
    NewProperty = 1,
    ExistingProperty = 2,
    ExistingArray = 3,
    Trait = 4,
    NewElement = 5,
    ExistingElement = 6,
  };

  struct Frame;

  Frame& Push(Kind kind);
  void PlaceValue(OwnedUnit value, unsigned int index);
  void Overwrite(Frame& frame, const View::Unit& value);

  const Construction::UnitFactory* factory_;
  std::vector<Frame> frames_;
  OwnedUnit result_;
  bool too_deep_ = false;
};

}  // namespace Por::Util
