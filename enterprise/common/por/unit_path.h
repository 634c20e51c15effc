#pragma once

#include <memory>

#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/unit.h"

// Paths: places in a tree of units as one string. A path is a run of tokens, each behind a
// separator: "." for a property of a composite or an index of an array, "^" for a trait. The empty
// path is the unit itself.
//
//   .Task.Runs.2^Kind    the trait Kind of element 2 of the array Runs of the composite Task
//
// A token ends at the next single separator; two equal ones in a row stay in it. In a token "&d;"
// stands for "." and "&r;" for "^"; "&" itself has no escape. An index is what ParseNumber reads in
// radix 10.
//
// References and pointers that come out are borrowed from the tree. The failures of paths are plain
// Common::Errors; those of arrays and traits on the way are ModuleErrors.

namespace Por::Util {

Common::String EscapePathToken(const Common::String& text);
Common::String UnescapePathToken(const Common::String& text);

// `path`, a ".", and the name, escaped.
Common::String JoinPath(const Common::String& path, const Name& name);

// The unit at the path, null if there is none or `unit` is null. An index that isn't below the size
// of its array throws 0xFA000F. A unit under construction is not looked into for traits: "^" is the
// same as "." there. In a unit for reading, a trait that is missing throws 0xFA001D, one that
// occurs twice 0xFA001C.
Construction::Unit* ResolveUnit(const Common::String& path, Construction::Unit* unit);
const View::Unit* ResolveViewUnit(const Common::String& path, const View::Unit* unit);
bool PathExists(const Common::String& path, const View::Unit* unit);

// Cuts the last token off `path` and returns it as a name; `is_trait`, if given, says what
// separator stood before it, and is untouched if none did. A separator at the very end is part of
// the token. An empty path or a lone separator gives the empty name and stays.
Name SplitLastToken(Common::String& path, bool* is_trait = nullptr);

// `*unit`; a null one throws 0xFA001B with the path.
Construction::Unit& CheckBranchValidity(Construction::Unit* unit, const Common::String& path);

// Removes the property at the path. Nothing there does nothing; a place in something other than a
// composite throws Common::Error 0xFA000A.
void RemoveAtPath(Construction::Unit& unit, const Common::String& path);

// Puts a copy of `unit` at the path, in place of what is there, making composites on the way and
// the root if it is null. An empty path replaces the root. Returns the root.
//
// Throws 0xFA0001 for a unit on the way that is no composite, for a path that WalkPath refuses and
// for one that would nest too deep; 0xFA000A for a root that is no composite and for an element of
// an array, which can't be replaced; 0xFA000F for an index that isn't below the size of its array.
// A value at the path is removed first: what was removed or made before a failure stays so.
std::shared_ptr<Construction::Unit> PutUnitInLocation(std::shared_ptr<Construction::Unit> root,
                                                      const View::Unit& unit,
                                                      const Common::String& path,
                                                      const Construction::UnitFactory& factory);

// Gets the tokens of a path.
class PathWalker : public Common::NonCopyable {
 public:
  virtual ~PathWalker() = default;
  virtual void OnProperty(const Name& name) = 0;
  // Kept for its place in the order; never called.
  virtual void OnTrait(const Name& name) = 0;
  virtual void OnEmptyPath() = 0;
};

// The strict walk: only "." separates, it must stand at the beginning and not at the end
// (0xFA0001), and two in a row have an empty token between them.
void WalkPath(const Common::String& path, PathWalker& walker);

}  // namespace Por::Util
