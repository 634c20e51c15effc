#include "bench/workload.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace Bench {

void KeepHeap() {
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_TOP_PAD, 1 << 20);
}

std::string ReadFile(const char* path) {
  // In one piece of the right size: what is freed here would be no new memory later.
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = file.tellg();
  std::string data(size < 0 ? 0 : static_cast<std::size_t>(size), '\0');
  file.seekg(0);
  file.read(data.data(), static_cast<std::streamsize>(data.size()));
  if (!file) {
    std::fprintf(stderr, "Cannot read %s\n", path);
    std::exit(2);
  }
  return data;
}

std::string GetStem(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return name.substr(0, name.find('.'));
}

void Report(const std::string& name, double value, const char* unit) {
  std::printf("%s %.6g %s\n", name.c_str(), value, unit);
  std::fflush(stdout);
}

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double TakeMedian(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace Bench
