// UTF-8 to UTF-16 and back: w8 TEXT...
//
// Speeds are in bytes of UTF-8 in both directions. A text called "names" is converted line by line.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/workload.h"
#include "core/common/text.h"

namespace {

constexpr double kBudget = 0.15;

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

// False if a text doesn't come back as it was.
bool Measure(const char* path) {
  const std::string text = Bench::ReadFile(path);
  const std::string label = "objprobe:" + Bench::GetStem(path);
  const bool by_line = Bench::GetStem(path) == "names";
  const std::vector<std::string> pieces = by_line ? SplitLines(text) : std::vector{text};

  std::vector<Common::String> wide(pieces.size());
  std::size_t bytes = 0;
  Common::String out16;
  std::string out8;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    bytes += pieces[i].size();
    Common::ToUtf16(wide[i], pieces[i].data(), pieces[i].size());
    Common::ToUtf8(out8, wide[i].data(), wide[i].size());
    if (out8 != pieces[i]) {
      std::fprintf(stderr, "%s does not come back\n", path);
      return false;
    }
  }

  const auto report = [&](const char* direction, double seconds) {
    Bench::Report(label + direction, static_cast<double>(bytes) / seconds / 1e9, "GB/s");
    if (!by_line) return;
    Bench::Report(label + direction, seconds / static_cast<double>(pieces.size()) * 1e9, "ns/name");
  };
  report(":to16", Bench::MeasureSeconds(
                      [&] {
                        for (const std::string& piece : pieces) {
                          Common::ToUtf16(out16, piece.data(), piece.size());
                          Bench::Keep(out16.data());
                        }
                      },
                      kBudget));
  report(":to8", Bench::MeasureSeconds(
                     [&] {
                       for (const Common::String& piece : wide) {
                         Common::ToUtf8(out8, piece.data(), piece.size());
                         Bench::Keep(out8.data());
                       }
                     },
                     kBudget));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Bench::KeepHeap();
  bool is_good = true;
  for (int i = 1; i < argc; ++i) is_good &= Measure(argv[i]);
  return is_good ? 0 : 1;
}
