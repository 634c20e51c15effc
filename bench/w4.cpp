// Unit streams to trees and back: w4 UNITS
//
// Each stream is decoded to a tree that can be changed and read by name, and encoded again. The
// figures: decode with each tree destroyed before the next; encode from trees made before; bytes of
// a stream; heap of a tree, with all alive; and the first pass of the process, all trees kept.

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "bench/framed_units.h"
#include "bench/workload.h"
#include "core/common/error.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"

namespace {

constexpr double kBudget = 0.3;

Por::OwnedUnit Decode(std::string_view frame) {
  return Por::Util::ReadUnitBlob(Bench::Bytes(frame), frame.size(), *Por::GetStaticUnitFactory());
}

bool IsUnit(std::string_view frame) {
  try {
    return Decode(frame) != nullptr;
  } catch (const Common::Error&) {
    return false;
  }
}

int Measure(const char* path) {
  const std::string data = Bench::ReadFile(path);
  const std::vector<std::string_view> frames = Bench::SplitFrames(data);
  const double bytes = Bench::CountBytes(frames);
  const double count = static_cast<double>(frames.size());

  // Only some, so that the first decoding of most is still a cold one; the rest comes back below.
  if (frames.empty() || !IsUnit(frames.front()) || !IsUnit(frames.back())) {
    std::fprintf(stderr, "%s holds no units\n", path);
    return 1;
  }
  std::vector<Por::OwnedUnit> trees;
  trees.reserve(frames.size());
  const std::size_t heap_before = mallinfo2().uordblks;
  const double start = Bench::Now();
  for (const std::string_view frame : frames) trees.push_back(Decode(frame));
  const double cold = Bench::Now() - start;
  const std::size_t heap = mallinfo2().uordblks - heap_before;

  std::vector<unsigned char> out;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    if (trees[i] == nullptr) {
      std::fprintf(stderr, "Stream %zu holds no unit\n", i);
      return 1;
    }
    Por::Util::WriteUnitBlob(*trees[i], out);
    if (std::string_view(reinterpret_cast<const char*>(out.data()), out.size()) != frames[i]) {
      std::fprintf(stderr, "Stream %zu does not come back\n", i);
      return 1;
    }
  }
  const double encode = Bench::MeasureSeconds(
      [&] {
        for (const Por::OwnedUnit& tree : trees) {
          Por::Util::WriteUnitBlob(*tree, out);
          Bench::Keep(out.data());
        }
      },
      kBudget);
  trees.clear();
  const double decode = Bench::MeasureSeconds(
      [&] {
        for (const std::string_view frame : frames) Bench::Keep(Decode(frame).get());
      },
      kBudget);

  Bench::Report("objprobe:decode", count / decode, "objects/s");
  Bench::Report("objprobe:decode", bytes / decode / 1e6, "MB/s");
  Bench::Report("objprobe:decode:cold", count / cold, "objects/s");
  Bench::Report("objprobe:encode", count / encode, "objects/s");
  Bench::Report("objprobe:encode", bytes / encode / 1e6, "MB/s");
  Bench::Report("objprobe:size", bytes / count, "bytes/object");
  Bench::Report("objprobe:heap", static_cast<double>(heap) / count, "bytes/object");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: %s UNITS\n", argv[0]);
    return 2;
  }
  Bench::KeepHeap();
  return Measure(argv[1]);
}
