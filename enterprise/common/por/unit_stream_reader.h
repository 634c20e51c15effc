#pragma once

#include <cstddef>

#include "enterprise/common/por/fwd.h"

namespace Por::Util::UnitStream {

// Reads a stream as the writer writes them, of a composite, as units of the in-memory factory. Null
// for every other stream, good or bad: other kinds of roots, members or traits out of order, items
// in unusual places, many levels, damage of any sort. Those take the long way through walker and
// builder; where this way reads a stream, both make the same tree.
// Throws std::bad_alloc.
OwnedUnit ReadWellFormed(const unsigned char* data, std::size_t size);

}  // namespace Por::Util::UnitStream
