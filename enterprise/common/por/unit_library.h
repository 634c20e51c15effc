#pragma once

#include "enterprise/common/por/unit_factory.h"

// The library that keeps the units of a service's own objects. Its units are used through the faces
// of the unit model only.

// Writes the library's factory to `out`; it stays the library's and lives as long as the program.
// Threads: any.
void GetPorViewUnitFactory(Por::Construction::UnitFactory** out);
