#pragma once

#include <string>

#include "core/common/error.h"

namespace Platform::Console {

// An error in one line for the user, UTF-8: its path, the messages of the chain and the code of its
// head, "data.db: The file is corrupted. SQLite: file is not a database (26). (0x4000d)".
std::string DescribeError(const Common::Error& error);

// UTF-8 text for a line of output: a "?" for each byte of a control character, be it one of the 33
// of ASCII or of the 32 from U+0080.
std::string MakePrintable(std::string text);

}  // namespace Platform::Console
