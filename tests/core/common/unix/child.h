#pragma once

#include <string>
#include <vector>

// How a child process ended and what it wrote.
struct ChildResult {
  std::string out;
  std::string err;
  int status = 0;  // exit status, or minus the number of the signal that ended it
  int stops = 0;   // traps that a debugger saw
};

struct ChildOptions {
  // "NAME=value" beside the environment of the test, which is cleared of our own variables.
  std::vector<std::string> environment;
  // What the program is started as, and from which folder.
  std::string program = CHILD_PROGRAM;
  std::string name = CHILD_PROGRAM;
  std::string folder;
  // Attaches this process as a debugger that goes on behind each trap.
  bool traced = false;
};

ChildResult RunChild(const std::vector<std::string>& arguments, const ChildOptions& options = {});
