#pragma once

#include <cstddef>

// Catalogues: message tables of other languages, each the file "objprobe.msg" of its language in
// the program's resource store (resource_api.h), laid out as message_table_internal.h tells. For
// the message table and for what makes catalogues.
namespace Common::Internal {

inline constexpr char kCatalogueFile[] = "objprobe.msg";

// The first call of the process subscribes to the language: that loads the catalogue of the current
// one and puts it in force, and so does each change of the language. Without a sound catalogue the
// built-in table comes into force. A call meanwhile, on another thread or by the resource library
// itself, returns at once. `errno` is kept. Threads: any.
//
// At process exit, in the reverse order in which these things were first done, the subscription
// ends, the built-in table comes back into force, the catalogues are freed and the store is closed.
// Whoever still holds an error may not render it after that. Threads that read texts or change the
// language must have ended before: nothing waits for them, and the store's handle goes although
// ResourceApi::LoadFile may be at work with it. So whoever stops such threads in an exit handler
// asks for a message text first and registers the handler then. That holds for a process whose
// first catalogue comes with that text; one that starts in English and loads its first catalogue
// later frees it before earlier handlers run, and has to end those threads before it exits.
void StartCatalogues() noexcept;

// Whether a block can be put in force: the two fields at its front fit its size and the number of
// rows, and every slot lies inside it, points inside it, and the row there ends inside it, in
// 16-bit units at even addresses or in bytes. `block` is aligned for 16-bit units.
bool IsCatalogue(const unsigned char* block, std::size_t size) noexcept;

}  // namespace Common::Internal
