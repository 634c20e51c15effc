#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace TestSupport {

struct ProgramResult {
  int status = -1;  // exit status; 1000 + signal when a signal ended the program
  std::string out;
  std::string err;
  int traps = 0;  // that a debugger saw
};

// Where the standard output of the program goes.
enum class Sink {
  kPipe,        // to the result
  kClosedPipe,  // to a pipe that nobody reads
  kFull,        // to a device without room
  kNone,        // there is none
};

struct ProgramOptions {
  Sink sink = Sink::kPipe;
  std::vector<std::string> environment = {};  // "NAME=value", before that of the test
  std::string folder = {};                    // to start in, unless empty
  bool is_debugged = false;                   // by this process, which goes on behind each trap
};

// Runs `file` with `argv`, the program's name included, to its end. Standard input is empty, and
// the test's own settings of our programs, its language among them, are taken out of the
// environment.
ProgramResult RunProgram(const std::string& file, const std::vector<std::string>& argv,
                         const ProgramOptions& options = {});
inline ProgramResult RunProgram(const std::string& file, const std::vector<std::string>& argv,
                                Sink sink) {
  return RunProgram(file, argv, ProgramOptions{.sink = sink});
}

// Descriptors that a program gets.
struct ProgramStreams {
  int in = -1;  // empty input
  int out = -1;
  int err = -1;
};

// Starts it as RunProgram does, but for the sinks, and returns its process, which is the caller's
// to reap. It is killed when the calling thread ends.
pid_t StartProgram(const std::string& file, const std::vector<std::string>& argv,
                   const ProgramOptions& options, const ProgramStreams& streams);

// As in ProgramResult, from what waitpid gives.
int DecodeStatus(int status);

}  // namespace TestSupport
