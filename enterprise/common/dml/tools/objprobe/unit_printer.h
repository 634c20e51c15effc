#pragma once

#include <cstddef>

#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/por/unit.h"

namespace Por::Util {

// Prints a unit under the name "Root", a line for each value, each line flushed when it ends:
//
//   Root (Composite)                       name and type; scalars with " = " and the value
//     [Kind (Common::String) = Sample]     traits first, in one line each
//     Name (Common::String) = alpha        then properties by name, elements by index
//
// `indent` blanks stand before the first line, two more before each level below. A trait with a
// composite or an array value runs on in its line, its members behind their own indents, and has
// its indent once more before the "]". An error prints its reasons below itself as "(SubError)",
// each two blanks deeper than the one before, in front of its traits.
//
// Text prints as it is, whatever it holds. The stack doesn't grow with the nesting.
// Throws std::bad_alloc, and what the unit throws.
void PrintUnit(const View::Unit& unit, std::size_t indent, ObjProbe::Output& output);

}  // namespace Por::Util
