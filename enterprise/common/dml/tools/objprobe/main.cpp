#include <malloc.h>

#include "enterprise/common/dml/tools/objprobe/arguments.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/dml/tools/objprobe/run_query.h"

int main(int argc, char** argv) {
  // One heap for all threads. Those that further threads would get grow page by page, with a system
  // call for each, and the objects of a report of a service are made on such a thread.
  ::mallopt(M_ARENA_MAX, 1);
  ObjProbe::PrepareStandardStreams();
  ObjProbe::Arguments arguments(argc, argv);
  if (!arguments.Parse()) {
    ObjProbe::Usage();
    return 0;
  }
  // The system cuts the status to its low eight bits.
  return static_cast<int>(ObjProbe::RunQuery(arguments));
}
