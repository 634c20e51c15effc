#pragma once

#include <cstdint>

#include "enterprise/common/dml/tools/objprobe/arguments.h"
#include "enterprise/common/dml_view_common/view_records.h"

namespace ObjProbe {

// What the query of a complete command line asks for. An object type selects the objects that have
// it as a trait "Is"; pattern and options are read as unit text, echoed on the standard output,
// options first; an empty text gives a null unit. Throws Common::Error.
Dml::ViewSpec CreateViewSpec(const Arguments& arguments);

// Runs the query of a complete command line to its end, inside the life of the IPC client, which is
// stopped behind everything else. Returns the exit status: 0, or the code of the Common::Error that
// ended it or kept the client from starting, whose text is then the last thing on the standard
// output. The security client is started for a service only.
std::uint32_t RunQuery(const Arguments& arguments);

}  // namespace ObjProbe
