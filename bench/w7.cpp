// w7 CASES: wildcard matches of the unit model, in ns per match for each group of cases.
//
// A line of CASES is group TAB pattern TAB text, in UTF-8; all lines of a group have one pattern.
// One figure a line: name, value, unit. HITS in the environment adds the number of matches.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "core/common/string.h"
#include "core/common/text.h"
#include "enterprise/common/por/match_wildcard.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kBudgetSeconds = 0.1;
constexpr std::size_t kFewestRounds = 3;

struct Group {
  Common::String pattern;
  std::vector<Common::String> texts;
};

std::map<std::string, Group> ReadGroups(std::istream& cases) {
  std::map<std::string, Group> groups;
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

// Seconds of one pass over the texts: the median of passes for at least the budget.
double Measure(const Group& group, std::size_t& hits) {
  std::vector<double> times;
  const Clock::time_point begin = Clock::now();
  do {
    const Clock::time_point start = Clock::now();
    hits = 0;
    for (const Common::String& text : group.texts) {
      hits += Por::Util::MatchWildcard(text, group.pattern, u'%', u'_') ? 1 : 0;
    }
    times.push_back(std::chrono::duration<double>(Clock::now() - start).count());
  } while (times.size() < kFewestRounds ||
           std::chrono::duration<double>(Clock::now() - begin).count() < kBudgetSeconds);
  const auto median = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), median, times.end());
  return *median;
}

}  // namespace

int main(int argc, char** argv) {
  std::ifstream cases(argc > 1 ? argv[1] : "");
  const std::map<std::string, Group> groups = ReadGroups(cases);
  if (groups.empty()) {
    std::fprintf(stderr, "usage: w7 CASES\n");
    return 2;
  }
  for (const auto& [label, group] : groups) {
    std::size_t hits = 0;
    const double seconds = Measure(group, hits);
    std::printf("objprobe:%s %.6g ns/match\n", label.c_str(),
                seconds / static_cast<double>(group.texts.size()) * 1e9);
    if (std::getenv("HITS") != nullptr) {
      std::fprintf(stderr, "# objprobe:%s %zu hits\n", label.c_str(), hits);
    }
  }
}
