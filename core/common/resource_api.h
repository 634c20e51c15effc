#pragma once

#include <memory>

// Port: what the message catalogues call of the resource library, which keeps files by language in
// the files of programs.
//
// A program gets the library by linking it: its operations are ordinary functions, in force before
// any code has run. Without one the weak stand-ins of resource_api.cpp remain: no module, no file,
// and no call of a callback, so that messages are English.
//
// Nothing here throws. Threads: any, where nothing else is told.
namespace ResourceApi {

// Opaque; the library's own.
struct ModuleHandle;

// Opens the store in the file of a module. `path` is in the byte escape (number_text.h). Null if
// there is none; a null path is that of the library itself, which may have none. Whether the store
// is sound shows when a file is loaded. CloseModule frees the handle.
ModuleHandle* OpenModule(const char16_t* path);

// Null is allowed. No other call with the handle may be going on.
void CloseModule(ModuleHandle* module);

// The named file of the current language, or of the nearest one that the store has; null if there
// is none or the store can't be read, or for a null handle. `*size` gets its bytes, 0 without a
// file. The block is aligned for any type. `other` is for other users of the library: null.
std::unique_ptr<unsigned char[]> LoadFile(ModuleHandle* module, const char* name, const char* other,
                                          unsigned int* size);

// Calls `callback` once, inside this call, and then at each change of the language, on the thread
// that changes it, without a lock. The library may ask for a message text inside these calls.
void SubscribeLanguageEvents(void (*callback)());
// The reverse. A call that is going on isn't waited for.
void UnsubscribeLanguageEvents(void (*callback)());

}  // namespace ResourceApi
