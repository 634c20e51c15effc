#pragma once

// The resource library (core/common/resource_api.h): stores are ZIP archives in a section of their
// own in the files of programs. Beside the files of English, at the root, an archive has a folder
// for each other language, and "locales", one line with the names of all of them, commas between.
//
// At first the language is that of the environment, asked for with the first file. English needs no
// store: no file is opened for it. A handle keeps the path alone; each load opens the file anew, so
// that after an upgrade of the program in its place the store is the new one.
namespace Platform::Resources {

// Changes the language of the process and tells all subscribers, inside this call. `locales` is a
// list of locale names with colons between them, as LANGUAGE has it; null goes back to the
// environment. Subscribers may be told more than once, but never are left with a former language
// when several threads change it. Throws std::bad_alloc, and then nothing has changed. Threads:
// any, but none once the process exits (core/common/message_catalogue.h).
void SetLanguage(const char* locales);

}  // namespace Platform::Resources
