#include "platform/store/read_only_vfs.h"

#include <sqlite3.h>

#include <mutex>

namespace Platform::Store {

namespace {

constexpr char kName[] = "objprobe-read-only";

// Write and read version of the file format, in the header of page 1: 1 is a file without a log,
// 2 one with.
constexpr sqlite3_int64 kVersionsOffset = 18;
constexpr sqlite3_int64 kVersionsSize = 2;
constexpr unsigned char kWithLog = 2;
constexpr unsigned char kWithoutLog = 1;

sqlite3_vfs* base_vfs = nullptr;
sqlite3_vfs vfs{};

// Filled by the first file that is opened, then only read. The layer below has one table of
// methods for all files with its usual locks.
std::once_flag methods_once;
const sqlite3_io_methods* base_methods = nullptr;
sqlite3_io_methods main_file_methods{};

int Read(sqlite3_file* file, void* buffer, int size, sqlite3_int64 offset) {
  const int result = base_methods->xRead(file, buffer, size, offset);
  if (result != SQLITE_OK) return result;
  auto* bytes = static_cast<unsigned char*>(buffer);
  for (sqlite3_int64 i = kVersionsOffset; i < kVersionsOffset + kVersionsSize; ++i) {
    if (i >= offset && i < offset + size && bytes[i - offset] == kWithLog) {
      bytes[i - offset] = kWithoutLog;
    }
  }
  return SQLITE_OK;
}

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  file->pMethods = nullptr;
  // Temporary files are kept in memory; nothing else has no name.
  if (name == nullptr) return SQLITE_CANTOPEN;
  flags &= ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_DELETEONCLOSE);
  flags |= SQLITE_OPEN_READONLY;
  const int result = base_vfs->xOpen(base_vfs, name, file, flags, out_flags);
  if (result != SQLITE_OK || (flags & SQLITE_OPEN_MAIN_DB) == 0) return result;
  std::call_once(methods_once, [file] {
    base_methods = file->pMethods;
    main_file_methods = *base_methods;
    main_file_methods.iVersion = 2;  // plain reads, no memory map of the file
    main_file_methods.xRead = &Read;
  });
  if (file->pMethods != base_methods) {
    file->pMethods->xClose(file);
    file->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  }
  file->pMethods = &main_file_methods;
  return SQLITE_OK;
}

int Delete(sqlite3_vfs*, const char*, int) {
  return SQLITE_READONLY;
}

const char* Register() {
  base_vfs = sqlite3_vfs_find("unix");
  if (base_vfs == nullptr) return nullptr;
  vfs = *base_vfs;
  vfs.pNext = nullptr;
  vfs.zName = kName;
  vfs.xOpen = &Open;
  vfs.xDelete = &Delete;
  return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK ? kName : nullptr;
}

}  // namespace

const char* RegisterReadOnlyVfs() {
  static const char* const name = Register();
  return name;
}

}  // namespace Platform::Store
