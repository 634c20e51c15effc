#pragma once

#include <string>

namespace ObjProbeService {

// Asks on the terminal for a new password, twice and without showing it; where standard input is no
// terminal, takes its first line. Throws std::runtime_error with a text for the user.
std::string AskForPassword(const std::string& user);

}  // namespace ObjProbeService
