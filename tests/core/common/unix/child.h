#pragma once

#include <string>
#include <vector>

#include "tests/support/run_program.h"

// Runs the program of child_main.cpp.
inline TestSupport::ProgramResult RunChild(std::vector<std::string> arguments,
                                           const TestSupport::ProgramOptions& options = {}) {
  arguments.insert(arguments.begin(), CHILD_PROGRAM);
  return TestSupport::RunProgram(CHILD_PROGRAM, arguments, options);
}
