// A reply packet into a tree: w2 PACKET
//
// The packet lies in memory. It is read, the tree is walked (the first unit of each text is looked
// at) and dropped. The figures: the first run of the process, when all memory is new; later runs;
// the peak of the process beyond the packet.

#include <sys/resource.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "bench/workload.h"
#include "core/file/memory_file.h"
#include "core/xml/simple_reader.h"

namespace {

constexpr double kBudget = 0.5;

double GetPeakMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

struct Sums {
  std::size_t elements = 0;
  std::size_t units = 0;
};

// Down to the first child, on to the next one, or up to where there is one.
void Walk(const Core::XmlTag* tag, Sums& sums) {
  const auto look = [&sums](std::u16string_view text) {
    if (!text.empty()) sums.units += text.size() + text.front();
  };
  while (tag != nullptr) {
    ++sums.elements;
    look(tag->GetText());
    if (tag->GetFirstChild() != nullptr) {
      tag = tag->GetFirstChild();
      continue;
    }
    for (; tag != nullptr; tag = tag->GetParent()) {
      look(tag->GetTextBehind());
      if (tag->GetNext() == nullptr) continue;
      tag = tag->GetNext();
      break;
    }
  }
}

// The number of elements, 0 for a packet that can't be read.
std::size_t Parse(const std::string& packet) {
  Core::XmlDocument document;
  Core::buf_ifile<char> file(packet.data(), packet.size());
  unsigned int line = 0;
  unsigned int column = 0;
  if (!Core::ReadDocument(document, file, line, column)) {
    std::fprintf(stderr, "Refused at line %u, column %u\n", line, column);
    return 0;
  }
  Sums sums;
  Walk(document.GetRoot(), sums);
  Bench::Keep(sums.units);
  return sums.elements;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: %s PACKET\n", argv[0]);
    return 2;
  }
  Bench::KeepHeap();
  const std::string packet = Bench::ReadFile(argv[1]);
  const double bytes = static_cast<double>(packet.size());
  const std::string name = "objprobe:" + Bench::GetStem(argv[1]);

  const double before = GetPeakMiB();
  const double start = Bench::Now();
  const std::size_t elements = Parse(packet);
  const double cold = Bench::Now() - start;
  const double peak = GetPeakMiB() - before;
  if (elements == 0) return 1;
  const double warm = Bench::MeasureSeconds([&] { Parse(packet); }, kBudget);

  Bench::Report(name + ":cold", bytes / cold / 1e6, "MB/s");
  Bench::Report(name + ":warm", bytes / warm / 1e6, "MB/s");
  Bench::Report(name + ":warm", static_cast<double>(elements) / warm / 1e6, "Melements/s");
  Bench::Report(name, peak, "MiB");
  std::fprintf(stderr, "# %s: %zu elements\n", name.c_str(), elements);
  return 0;
}
