#pragma once

#include <functional>
#include <stdexcept>
#include <string>

// What our tools have in common as programs.

namespace Tools {

// Exit statuses; 0 is done.
inline constexpr int kFailed = 1;
inline constexpr int kWrongUsage = 2;

inline constexpr char kOutputFailure[] = "Error occurred while writing to standard output.";

// A failure in words for the user, UTF-8.
class CommandFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One line on standard error, behind what was printed before: "PROGRAM: TEXT".
void Tell(const char* program, const std::string& text);

// Tells it and gives kFailed.
int Fail(const char* program, const std::string& text);

// Runs a command that throws Common::Error or CommandFailure, tells its failure, and gives the exit
// status. What the command printed must have reached standard output.
int RunCommand(const char* program, const std::function<void()>& command);

}  // namespace Tools
