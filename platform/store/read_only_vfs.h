#pragma once

namespace Platform::Store {

// Registers, once per process, the file layer through which SQLite reads a store, and returns its
// name. Null when SQLite can't be had. Threads: any.
//
// A store is kept in WAL mode. SQLite's own layer makes the log and its index when it reads such a
// file and leaves them behind when it can't write. This one creates, changes and removes nothing:
//
// - Log and index are there: they are read, both opened read-only.
// - There is a log without its index, the rest of a writer that died or of a copy: SQLite makes an
//   index in memory. The locks of an index are then granted without one.
// - There is no log, or one without a frame: the main file holds everything. The layer shows its
//   header as that of a file without a log, so that SQLite reads under a SHARED lock on the file
//   and checks for a log behind that lock.
//
// The ways without an index are safe because they hold the SHARED lock, and a log reaches the main
// file only under an EXCLUSIVE lock on it: writers never checkpoint while they are open
// (wal_autocheckpoint is 0), and the checkpoint at the close of the last one takes that lock first.
// Pages must not be kept between two transactions, as a log doesn't always move the change counter:
// one connection serves one transaction.
//
// Open with the parameter "readonly_shm=1".
const char* RegisterReadOnlyVfs();

}  // namespace Platform::Store
