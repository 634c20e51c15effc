#include "enterprise/common/dml/tools/objprobe/arguments.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/dml/tools/objprobe/run_query.h"

int main(int argc, char** argv) {
  ObjProbe::PrepareStandardStreams();
  ObjProbe::Arguments arguments(argc, argv);
  if (!arguments.Parse()) {
    ObjProbe::Usage();
    return 0;
  }
  // The system cuts the status to its low eight bits.
  return static_cast<int>(ObjProbe::RunQuery(arguments));
}
