// Digests of units: w5 STREAMS
//
// The units are read from the framed streams first; the digests of all of them are timed.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "bench/framed_units.h"
#include "bench/workload.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_digest.h"
#include "enterprise/common/por/unit_factory.h"

namespace {

constexpr double kBudget = 0.3;

void Measure(const char* path) {
  const std::string data = Bench::ReadFile(path);
  const std::vector<std::string_view> frames = Bench::SplitFrames(data);
  std::vector<Por::OwnedUnit> units;
  for (const std::string_view frame : frames) {
    units.push_back(
        Por::Util::ReadUnitBlob(Bench::Bytes(frame), frame.size(), *Por::GetStaticUnitFactory()));
    if (units.back() == nullptr) {
      std::fprintf(stderr, "%s: frame %zu holds no unit\n", path, units.size() - 1);
      std::exit(1);
    }
  }
  const double seconds = Bench::MeasureSeconds(
      [&] {
        for (const Por::OwnedUnit& unit : units) {
          Bench::Keep(Por::Util::ComputeUnitDigest(*unit).bytes[0]);
        }
      },
      kBudget);
  const std::string label = "objprobe:" + Bench::GetStem(path);
  Bench::Report(label, Bench::CountBytes(frames) / seconds / 1e6, "MB/s");
  Bench::Report(label, static_cast<double>(units.size()) / seconds, "digests/s");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: %s STREAMS\n", argv[0]);
    return 2;
  }
  Bench::KeepHeap();
  Measure(argv[1]);
}
