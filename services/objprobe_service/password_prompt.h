#pragma once

#include <string>

#include "core/common/secret.h"

namespace ObjProbeService {

// Asks on the terminal for a new password, twice and without showing it; where standard input is no
// terminal, takes its first line. `password` is new. Throws std::runtime_error with a text for the
// user.
void AskForPassword(const std::string& user, Common::Secret& password);

}  // namespace ObjProbeService
