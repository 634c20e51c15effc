// w7 CASES: wildcard matches of the unit model, in ns per match for each group of cases.
//
// A line of CASES is group TAB pattern TAB text, in UTF-8; all lines of a group have one pattern.
// HITS in the environment adds the number of matches on standard error.

#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/workload.h"
#include "core/common/string.h"
#include "core/common/text.h"
#include "enterprise/common/por/match_wildcard.h"

namespace {

constexpr double kBudgetSeconds = 0.1;

struct Group {
  Common::String pattern;
  std::vector<Common::String> texts;
};

std::map<std::string, Group> ReadGroups(const char* path) {
  std::map<std::string, Group> groups;
  std::istringstream cases(Bench::ReadFile(path));
  for (std::string line; std::getline(cases, line);) {
    const std::size_t one = line.find('\t');
    const std::size_t two = one == std::string::npos ? one : line.find('\t', one + 1);
    if (two == std::string::npos) continue;
    Group& group = groups[line.substr(0, one)];
    const std::string pattern = line.substr(one + 1, two - one - 1);
    if (group.texts.empty()) group.pattern = Common::Utf8ToString(pattern.c_str());
    group.texts.push_back(Common::Utf8ToString(line.c_str() + two + 1));
  }
  return groups;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: w7 CASES\n");
    return 2;
  }
  Bench::KeepHeap();
  for (const auto& [label, group] : ReadGroups(argv[1])) {
    std::size_t hits = 0;
    const double seconds = Bench::MeasureSeconds(
        [&hits, &texts = group.texts, &pattern = group.pattern] {
          hits = 0;
          for (const Common::String& text : texts) {
            hits += Por::Util::MatchWildcard(text, pattern, u'%', u'_') ? 1u : 0u;
          }
        },
        kBudgetSeconds);
    Bench::Report("objprobe:" + label, seconds / static_cast<double>(group.texts.size()) * 1e9,
                  "ns/match");
    if (std::getenv("HITS") != nullptr) {
      std::fprintf(stderr, "# objprobe:%s %zu hits\n", label.c_str(), hits);
    }
  }
}
