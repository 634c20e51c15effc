#pragma once

#include <string>

namespace ObjProbeService {

// Writes one line of UTF-8 to standard error: the program's name and the text, whose control
// characters become "?". Failures are not told, as there is nobody to tell. Threads: any; lines of
// up to 4,096 bytes stay whole on a pipe, too.
void LogEvent(const std::string& text);

}  // namespace ObjProbeService
