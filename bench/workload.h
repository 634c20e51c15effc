#pragma once

#include <string>
#include <vector>

// What the workload programs share: the clock, the form of the figures, the inputs.
namespace Bench {

// Keeps freed memory in the heap, so that repeated calls don't time page faults. Call it first.
void KeepHeap();

std::string ReadFile(const char* path);

// The last part of a path up to its first full stop: the name of the input in a figure's name.
std::string GetStem(const std::string& path);

// One line "name value unit".
void Report(const std::string& name, double value, const char* unit);

double Now();
double TakeMedian(std::vector<double>& values);

// Lets the compiler believe that the value is used.
template <class T>
void Keep(const T& value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

// Seconds of one call: the median of calls repeated for `budget` seconds, three at least.
template <class Function>
double MeasureSeconds(Function&& function, double budget) {
  std::vector<double> times;
  const double end = Now() + budget;
  do {
    const double start = Now();
    function();
    times.push_back(Now() - start);
  } while (times.size() < 3 || Now() < end);
  return TakeMedian(times);
}

}  // namespace Bench
