#pragma once

#include <string>

#include "platform/store/sqlite_database.h"

// How a store lies in an SQLite database.

namespace Platform::Store {

// Marks the database as an object store: "OPRB".
inline constexpr long long kApplicationId = 0x4F505242;
// Version of the schema below. A store of a later one is refused; one of version 1, whose changes
// have no stamps and no index, is brought up by its next writer and refused to readers up to then.
inline constexpr long long kSchemaVersion = 2;

// Pages hold a dozen objects of the usual size: fewer reads for a walk over all.
inline constexpr char kCreatePragmas[] =
    "PRAGMA page_size = 16384;"
    "PRAGMA encoding = 'UTF-8';"
    "PRAGMA auto_vacuum = NONE";

// objects     `id` is the 16 bytes of the identification, `type` what its `Is` traits say in
//             words, `data` the binary form. `seq` stays when an object is replaced.
// object_is   an entry for each `Is` key (is_index.h) of each object.
// changes     the last changes, oldest first, written with the change itself. `kind` is 0 created,
//             1 updated, 2 deleted; `before` what was stored before it. What was stored after it is
//             the `before` of the next change of the same object, or the object as it is. `total`
//             is the sum of the sizes of `before` up to here, over all changes that ever were.
//             `stamp` is a random number of the change's transaction, `previous` the stamp of
//             the change before, 0 for none: by these a reader knows the log that it follows from
//             that of another store, or of a copy of this one, of the same numbers.
//             By the index, whose entries of one object lie in the order of their numbers, that
//             next change is found.
//             Old rows are removed (SqliteStoreWriter::kMaxChanges): who misses a number begins
//             anew.
inline constexpr char kCreateTables[] =
    "CREATE TABLE objects("
    "  seq INTEGER PRIMARY KEY, id BLOB NOT NULL UNIQUE, type TEXT NOT NULL, data BLOB NOT NULL);"
    "CREATE TABLE object_is("
    "  value BLOB NOT NULL, seq INTEGER NOT NULL, PRIMARY KEY(value, seq)) WITHOUT ROWID;"
    "CREATE INDEX object_is_by_seq ON object_is(seq);"
    "CREATE TABLE changes("
    "  number INTEGER PRIMARY KEY AUTOINCREMENT, kind INTEGER NOT NULL, seq INTEGER NOT NULL,"
    "  id BLOB NOT NULL, total INTEGER NOT NULL, stamp INTEGER NOT NULL,"
    "  previous INTEGER NOT NULL, before BLOB);"
    "CREATE INDEX changes_by_seq ON changes(seq)";

// Throws unless `database` is a store of our version: 0x40007 when it is another program's
// database, 0x4000E for a version that this program doesn't know, what SQLite says for what is no
// database at all.
void CheckSchema(SqliteDatabase& database);
// Brings a store of version 1 to ours, in a transaction; does nothing to any other database.
void UpgradeSchema(SqliteDatabase& database);

}  // namespace Platform::Store
