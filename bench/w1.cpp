// Printing a report: w1 STREAMS
//
// Reads the units from the framed streams, one at a time, and prints each as a report does.

#include <cstdio>
#include <string>
#include <string_view>

#include "bench/framed_units.h"
#include "bench/workload.h"
#include "core/common/error.h"
#include "enterprise/common/dml/tools/objprobe/dml.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: %s STREAMS\n", argv[0]);
    return 2;
  }
  ObjProbe::PrepareStandardStreams();
  const std::string data = Bench::ReadFile(argv[1]);
  const Por::Construction::InMemoryUnitFactory factory;
  ObjProbe::ReportReader reader;
  try {
    for (const std::string_view frame : Bench::SplitFrames(data)) {
      const Por::OwnedUnit unit =
          Por::Util::ReadUnitBlob(Bench::Bytes(frame), frame.size(), factory);
      if (unit != nullptr) reader.Read(*unit);
    }
  } catch (const Common::Error& error) {
    std::fprintf(stderr, "%s: error 0x%x\n", argv[0], error.GetCode());
    return 1;
  }
  ObjProbe::StandardOutput().Flush();
}
