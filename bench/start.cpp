// What the catalogues cost at the start of a process: start PROGRAM BARE [RUNS]
//
// Runs a query that fails at once, in turns (the texts are asked for before main in any run): BARE,
// which is PROGRAM without the resource library, PROGRAM in English, and PROGRAM in German, which
// reads its store. Prints the medians of wall time and processor time and what each adds to BARE.

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iterator>
#include <string>
#include <vector>

#include "bench/workload.h"

namespace {

double ToSeconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

class Series {
 public:
  Series(const char* name, const char* program, const char* locale)
      : name_(name), program_(program), locale_(std::string("LC_ALL=").append(locale)) {}

  void Run(const posix_spawn_file_actions_t& actions) {
    const std::string words[] = {"objprobe", "/none.db", "u", "p", "DB", "Task"};
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    char* const environment[] = {locale_.data(), nullptr};
    const double begin = Bench::Now();
    pid_t child = 0;
    int status = 0;
    rusage usage{};
    if (::posix_spawn(&child, program_, &actions, nullptr, arguments.data(), environment) != 0 ||
        ::wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0x11) {
      ::fprintf(stderr, "start: %s doesn't fail as it should\n", program_);
      ::exit(1);
    }
    wall_.push_back(Bench::Now() - begin);
    processor_.push_back(ToSeconds(usage.ru_utime) + ToSeconds(usage.ru_stime));
  }

  void Report() {
    Bench::Report(name_ + "_wall", Bench::TakeMedian(wall_), "s");
    Bench::Report(name_ + "_processor", Bench::TakeMedian(processor_), "s");
  }

 private:
  const std::string name_;
  const char* const program_;
  std::string locale_;
  std::vector<double> wall_;
  std::vector<double> processor_;
};

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 3 ? ::atoi(argv[3]) : 300;
  if (argc < 3 || runs <= 0) {
    ::fprintf(stderr, "Usage: %s PROGRAM BARE [RUNS]\n", argv[0]);
    return 2;
  }
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  Series series[] = {{"start_bare", argv[2], "C"},
                     {"start_english", argv[1], "C"},
                     {"start_german", argv[1], "de_DE.UTF-8"}};
  constexpr std::size_t kCount = std::size(series);
  for (std::size_t run = 0; run < static_cast<std::size_t>(runs); ++run) {
    // Each behind each other one as often.
    for (std::size_t i = 0; i < kCount; ++i) {
      series[run % 2 == 0 ? (run + i) % kCount : (run + kCount - i) % kCount].Run(actions);
    }
  }
  for (Series& one : series) one.Report();
  ::posix_spawn_file_actions_destroy(&actions);
  return 0;
}
