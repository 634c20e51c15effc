#include "enterprise/common/por/unit_library.h"

// The units of this program's own factory serve as those of the library.
void GetPorViewUnitFactory(Por::Construction::UnitFactory** out) {
  *out = Por::GetStaticUnitFactory();
}
