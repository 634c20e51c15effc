#include "core/common/time/time_format_module.h"

#include "core/common/time/time_format_icu.h"

extern "C" Common::TimeFormat* ObjprobeCreateTimeFormat(int style, int what);

// The loader's view of Common::CreateTimeFormatFunction.
Common::TimeFormat* ObjprobeCreateTimeFormat(int style, int what) {
  return Common::TimeFormatIcu::Create(style, what).release();
}
