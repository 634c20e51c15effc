#pragma once

#include <string>

namespace Common {

// Modules: libraries that a program loads on demand from ../lib beside its folder, so that what is
// dear at start and seldom needed costs nothing until then.

// The address of a symbol of a module, which stays loaded. Null if the module or the symbol can't
// be had; `reason` then gets the loader's words. The program is found through /proc/self/exe;
// without it, and in a program that runs with more rights than its user, there are no modules. A
// failure isn't kept: it may pass, like a lack of descriptors. Throws std::bad_alloc. Threads: any.
void* FindInModule(const char* module, const char* symbol, std::string& reason);

}  // namespace Common
