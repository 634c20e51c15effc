#pragma once

#include <string>
#include <vector>

namespace TestSupport {

struct ProgramResult {
  int status = -1;  // exit status; 1000 + signal when a signal ended the program
  std::string out;
  std::string err;
};

// Where the standard output of the program goes.
enum class Sink {
  kPipe,        // to the result
  kClosedPipe,  // to a pipe that nobody reads
  kFull,        // to a device without room
  kNone,        // there is none
};

// Runs `file` with `argv`, the program's name included, to its end. Standard input is empty.
ProgramResult RunProgram(const char* file, const std::vector<std::string>& argv,
                         Sink sink = Sink::kPipe);

}  // namespace TestSupport
